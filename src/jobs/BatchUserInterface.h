#pragma once
// What the conversion controller needs of whoever shows the batch to the user
// (the command line today). Every call comes on the main thread and must
// return at once: a question is answered later, by calling the controller
// back on the main thread.

#include <string>
#include <vector>

namespace velvox {

class FileEncodeOperation;

class BatchUserInterface {
public:
    virtual ~BatchUserInterface() = default;

    // A refused action that needs no words (adding files while a batch runs).
    virtual void beep() {}
    // A start-up check failed; the batch stays idle.
    virtual void showAlert(const std::string& message, const std::string& informativeText,
                           const std::string& button) = 0;
    // After an output-folder alert: where the user would fix the folder.
    virtual void openPreferences() {}

    // The overwrite question. Buttons in order ("No", "Yes", "Skip"); the
    // answer goes to ApplicationController::alertDidEnd with the button's
    // return code and the state of the suppression box.
    virtual void askQuestion(const std::string& message, const std::string& informativeText,
                             const std::vector<std::string>& buttons,
                             const std::string& suppressionTitle) = 0;
    // The question on screen is moot (its operation was cancelled).
    virtual void withdrawQuestion() {}

    // The queue changed (files added or removed, rows reset).
    virtual void operationsDidChange() {}
    virtual void operationDidStart(const FileEncodeOperation&) {}
    // Called before the row is reset or removed, so its results can be read.
    virtual void operationDidFinish(const FileEncodeOperation&) {}

    // End of a batch with failures: the message and the buttons ("OK",
    // "Show Report").
    virtual void showFailureSheet(const std::string& message,
                                  const std::vector<std::string>& buttons) = 0;
    virtual void showErrorLog() {}
    virtual void openFolder(const std::string&) {}
    virtual void batchDidFinish() {}
};

} // namespace velvox
