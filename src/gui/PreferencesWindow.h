#pragma once
// The preferences window: every preference the batch reads, in the groups a
// user thinks in (Output, Files, Tags, Processing, Music Library). Each
// control writes its key to the one preference store as soon as it changes,
// so the command line sees the same settings and nothing waits for an OK.
//
// GUI thread only.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <QDialog>
#include <nlohmann/json.hpp>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QSpinBox;
class QTabWidget;
class QWidget;

namespace velvox {

class AudioMetadata;
class EncoderSettings;

class PreferencesWindow : public QDialog {
    Q_OBJECT
public:
    // What the naming preview expands: the selected file's path and tags and
    // the first enabled format (any may be absent).
    struct PreviewSource {
        std::optional<std::string> path;
        std::shared_ptr<const AudioMetadata> metadata;
        std::shared_ptr<const EncoderSettings> settings;
    };
    using PreviewProvider = std::function<PreviewSource()>;

    explicit PreferencesWindow(PreviewProvider preview, QWidget* parent = nullptr);

    // Rereads every control from the store.
    void reload();
    // The naming preview as shown.
    QString namingPreview() const;
    // The control bound to a preference key (tests, accessibility).
    QWidget* controlFor(const std::string& key) const;

public slots:
    void updatePreview();

private:
    QWidget* outputPage();
    QWidget* filesPage();
    QWidget* tagsPage();
    QWidget* processingPage();
    QWidget* libraryPage();
    QCheckBox* check(const std::string& key, const QString& title);
    QLineEdit* text(const std::string& key);
    QSpinBox* number(const std::string& key, int minimum, int maximum, bool storedAsText);
    QComboBox* choice(const std::string& key,
                      const std::vector<std::pair<QString, nlohmann::json>>& items);
    void write(const std::string& key, const nlohmann::json& value);

    PreviewProvider preview_;
    QTabWidget* tabs_;
    QLabel* previewLabel_ = nullptr;
    std::vector<std::function<void()>> readers_;
    std::vector<std::pair<std::string, QWidget*>> controls_;
    bool reading_ = false;
};

} // namespace velvox
