#pragma once
// The output-format list of the main window: a check box and the complete
// description per format, and the commands to add a format of any encoder the
// registry knows, edit it in its generated editor, duplicate, remove and make
// it the default for new formats. Every change goes to the controller and is
// saved to the preferences at once, so no edit is lost.
//
// GUI thread only.

#include <memory>
#include <vector>

#include <QWidget>
#include <nlohmann/json.hpp>

class QListWidget;
class QListWidgetItem;
class QPushButton;
class QToolButton;

namespace velvox {

class ApplicationController;
class EncoderSettings;
class EncoderSettingsEditor;
struct EncoderDescriptor;

class OutputFormatList : public QWidget {
    Q_OBJECT
public:
    explicit OutputFormatList(ApplicationController& controller, QWidget* parent = nullptr);

    void setController(ApplicationController& controller) {
        controller_ = &controller;
        reload();
    }
    // Refills the rows from the controller.
    void reload();
    // Disables editing while a batch runs.
    void setEditable(bool editable);

    QListWidget* listWidget() const { return list_; }
    // Opens the editor for a new format of `descriptor` (with `presetIndex`'s
    // values, -1 for none); the editor is returned so that callers (and tests)
    // can drive it; it is modal to the window and deletes itself.
    EncoderSettingsEditor* addFormat(const EncoderDescriptor& descriptor, int presetIndex = -1);
    EncoderSettingsEditor* editSelected();
    EncoderSettingsEditor* duplicateSelected();
    void removeSelected();
    void useSelectedAsDefault();

signals:
    // A format was refused (already in the list, or unknown encoder).
    void refused(const QString& message);

private:
    int selectedRow() const;
    // Opens the editor on the selected format's values, its result going to
    // that row or (asNewRow) to a new one. Null when nothing is selected or
    // the build has no encoder for the format (said when editing).
    EncoderSettingsEditor* openSelected(bool asNewRow);
    // Opens the editor on `dictionary`; its result goes to `row` (-1: a new row).
    EncoderSettingsEditor* openEditor(const EncoderDescriptor& descriptor,
                                      const nlohmann::json& dictionary, int row);
    // Puts `settings` at `row` (-1 appends) unless it duplicates another row.
    bool store(std::unique_ptr<EncoderSettings> settings, int row);
    void save(std::vector<std::shared_ptr<EncoderSettings>> list);
    void itemChanged(QListWidgetItem* item);

    ApplicationController* controller_;
    QListWidget* list_;
    QToolButton* addButton_;
    QPushButton* editButton_;
    QPushButton* duplicateButton_;
    QPushButton* removeButton_;
    QPushButton* defaultButton_;
    bool reloading_ = false;
};

} // namespace velvox
