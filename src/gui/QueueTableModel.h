#pragma once
// The queue as the main window's table shows it: one row per file job of the
// controller, with the file name, the source format and length (read once per
// file, off the GUI thread) and the job's status text and progress.
//
// GUI thread only.

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <QAbstractTableModel>

namespace velvox {

class ApplicationController;
class AudioMetadata;
class FileEncodeOperation;

class QueueTableModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { NameColumn, FormatColumn, LengthColumn, StatusColumn, ColumnCount };
    // The status column answers this role with the job's progress, 0 to 100,
    // while it runs (-1 otherwise, and when its progress is unknown).
    static constexpr int ProgressRole = Qt::UserRole + 1;

    explicit QueueTableModel(ApplicationController& controller, QObject* parent = nullptr);

    // The queue is rebuilt in a new controller when files are removed.
    void setController(ApplicationController& controller);
    // The controller's queue changed shape.
    void reload();
    // Running rows changed status or progress.
    void refreshStatus();
    // What the tag reader found in a source (null: nothing readable).
    void setFacts(const std::string& path, std::shared_ptr<const AudioMetadata> facts);
    bool hasFacts(const std::string& path) const { return facts_.count(path) > 0; }
    std::shared_ptr<const AudioMetadata> factsFor(const std::string& path) const;

    std::shared_ptr<FileEncodeOperation> jobAt(int row) const;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    QString statusText(const FileEncodeOperation& job) const;

    ApplicationController* controller_;
    std::map<std::string, std::shared_ptr<const AudioMetadata>> facts_;
};

} // namespace velvox
