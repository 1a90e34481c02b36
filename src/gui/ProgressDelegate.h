#pragma once
// Draws the status cell of a running file as a progress bar with its status
// text; other cells are drawn as usual. GUI thread only.

#include <QStyledItemDelegate>

namespace velvox {

class ProgressDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
};

} // namespace velvox
