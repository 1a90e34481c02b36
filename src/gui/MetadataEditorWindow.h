#pragma once
// The tag editor for the selected queued files: one field per editable tag.
// With several files, a field whose values differ shows as mixed and stays
// as each file has it unless the user types into it; an emptied field is
// removed. Save writes the edits into the queued jobs' records and asks the
// window to run the update-tags batch that writes them to the files.
//
// GUI thread only.

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <QDialog>

class QLabel;
class QLineEdit;

namespace velvox {

class FileEncodeOperation;

class MetadataEditorWindow : public QDialog {
    Q_OBJECT
public:
    MetadataEditorWindow(std::vector<std::shared_ptr<FileEncodeOperation>> jobs,
                         QWidget* parent = nullptr);

    QLineEdit* fieldEditor(const std::string& name) const;
    bool isMixed(const std::string& name) const { return mixed_.count(name) > 0; }
    // Applies the edited fields to every record; false (with the reason
    // shown) when a value does not fit its field.
    bool applyEdits();

signals:
    // The records hold the edits; the files are to be written.
    void saveRequested();

private:
    void clearAllFields();

    std::vector<std::shared_ptr<FileEncodeOperation>> jobs_;
    std::map<std::string, QLineEdit*> editors_;
    std::set<std::string> mixed_;
    std::set<std::string> edited_;
    QLabel* error_;
};

} // namespace velvox
