#pragma once
// The editor of one output format, built from its encoder's settings schema:
// a combo box for a key with a fixed set of values, a spin box with a slider
// for a number with a range, a check box for a switch and a text field for
// anything else, each control named "setting_<word>" after the word a user
// types for it on the command line. A new encoder gets its editor by its
// registry row alone.
//
// GUI thread only.

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <QDialog>
#include <nlohmann/json.hpp>

class QFormLayout;
class QLabel;
class QWidget;

namespace velvox {

struct EncoderDescriptor;
struct SettingSpec;
class EncoderSettings;

class EncoderSettingsEditor : public QDialog {
    Q_OBJECT
public:
    // Edits `dictionary` (a format of the descriptor's encoder).
    EncoderSettingsEditor(const EncoderDescriptor& descriptor, nlohmann::json dictionary,
                          QWidget* parent = nullptr);
    ~EncoderSettingsEditor() override;

    // The edited format once accepted (null before).
    std::unique_ptr<EncoderSettings> result() const;
    // The control made for a setting word, for tests and accessibility.
    QWidget* controlFor(const std::string& word) const;

    void accept() override;

private:
    struct Row {
        const SettingSpec* spec;
        QWidget* control;
    };
    QWidget* makeControl(const SettingSpec& spec, const nlohmann::json& stored);
    QString typedText(const Row& row) const;
    // Builds the format from the controls; the error text when one is refused.
    std::unique_ptr<EncoderSettings> build(QString& error) const;

    const EncoderDescriptor& descriptor_;
    nlohmann::json original_;
    std::vector<Row> rows_;
    QLabel* errorLabel_ = nullptr;
    std::unique_ptr<EncoderSettings> result_;
};

} // namespace velvox
