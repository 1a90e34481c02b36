#include "gui/ProgressDelegate.h"

#include <QApplication>
#include <QStyleOptionProgressBar>

#include "gui/QueueTableModel.h"

namespace velvox {

void ProgressDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                             const QModelIndex& index) const {
    const double progress = index.data(QueueTableModel::ProgressRole).toDouble();
    if (index.column() != QueueTableModel::StatusColumn || progress < 0) {
        QStyledItemDelegate::paint(painter, option, index);
        return;
    }
    QStyleOptionProgressBar bar;
    bar.rect = option.rect.adjusted(1, 1, -1, -1);
    bar.state = option.state | QStyle::State_Horizontal;
    bar.minimum = 0;
    bar.maximum = 1000;
    bar.progress = int(progress * 10.0);
    bar.text = index.data(Qt::DisplayRole).toString();
    bar.textVisible = true;
    bar.textAlignment = Qt::AlignCenter;
    const QWidget* widget = option.widget;
    QStyle* style = widget ? widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ProgressBar, &bar, painter, widget);
}

} // namespace velvox
