#pragma once
// The tag editor for the selected queued files: one field per editable tag,
// and the album artwork. With several files, a field whose values differ
// shows as mixed and stays as each file has it unless the user changes it;
// an emptied field is removed. The artwork can be dropped, chosen, cleared
// or saved to a file. Copy puts the fields on the clipboard (as JSON), Paste
// fills them from there, Revert shows again what the files hold. Save writes
// the edits into the queued jobs' records and asks the window to run the
// update-tags batch that writes them to the files.
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

class AlbumArtwork;
class ArtworkWell;
class AudioMetadata;
class FileEncodeOperation;

class MetadataEditorWindow : public QDialog {
    Q_OBJECT
public:
    // The clipboard type of copied fields: {"metadata": archive, "mixed": [names]}.
    static constexpr const char* kMetadataMimeType = "application/x-velvox-metadata+json";

    MetadataEditorWindow(std::vector<std::shared_ptr<FileEncodeOperation>> jobs,
                         QWidget* parent = nullptr);

    QLineEdit* fieldEditor(const std::string& name) const;
    bool isMixed(const std::string& name) const { return mixed_.count(name) > 0; }
    // Applies the edited fields to every record; false (with the reason
    // shown) when a value does not fit its field.
    bool applyEdits();

    // ---- Artwork ----
    const std::shared_ptr<AlbumArtwork>& artwork() const { return artwork_; }
    bool isArtworkMixed() const { return artworkMixed_; }
    // False (with the reason shown) when the file is not a picture.
    bool setArtworkFromFile(const QString& path);
    bool saveArtworkTo(const QString& path);
    void clearArtwork();

    // ---- Commands ----
    void clearAllFields();
    void copyFields() const;
    // False (changing nothing) when the clipboard holds no copied fields.
    bool pasteFields();
    // Reads the files again and shows what they hold; edits are dropped.
    void revertFields();

signals:
    // The records hold the edits; the files are to be written.
    void saveRequested();

private:
    QWidget* makeArtworkColumn();
    QWidget* makeFieldForm();
    // Shows the records' fields, marking those that differ as mixed.
    void populate(const std::vector<std::shared_ptr<AudioMetadata>>& records);
    void setFieldText(const std::string& name, const QString& text);
    void setArtwork(std::shared_ptr<AlbumArtwork> artwork);
    void chooseArtwork();
    void exportArtwork();
    void showError(const QString& text);

    std::vector<std::shared_ptr<FileEncodeOperation>> jobs_;
    std::map<std::string, QLineEdit*> editors_;
    std::set<std::string> mixed_;
    std::set<std::string> edited_;
    // What Revert read from the files; replaces the records on Save.
    std::vector<std::shared_ptr<AudioMetadata>> reverted_;
    std::shared_ptr<AlbumArtwork> artwork_;
    bool artworkMixed_ = false;
    bool artworkEdited_ = false;
    ArtworkWell* artworkWell_ = nullptr;
    QLabel* error_ = nullptr;
};

} // namespace velvox
