#include "gui/QueueTableModel.h"

#include <filesystem>

#include "gui/ValueFormatters.h"
#include "jobs/ApplicationController.h"
#include "jobs/FileEncodeOperation.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

QueueTableModel::QueueTableModel(ApplicationController& controller, QObject* parent)
    : QAbstractTableModel(parent), controller_(&controller) {}

void QueueTableModel::setController(ApplicationController& controller) {
    beginResetModel();
    controller_ = &controller;
    endResetModel();
}

void QueueTableModel::reload() {
    beginResetModel();
    endResetModel();
}

void QueueTableModel::refreshStatus() {
    const int rows = rowCount();
    if (rows > 0)
        emit dataChanged(index(0, StatusColumn), index(rows - 1, StatusColumn));
}

std::shared_ptr<const AudioMetadata> QueueTableModel::factsFor(const std::string& path) const {
    const auto found = facts_.find(path);
    return found == facts_.end() ? nullptr : found->second;
}

void QueueTableModel::setFacts(const std::string& path,
                               std::shared_ptr<const AudioMetadata> facts) {
    facts_[path] = std::move(facts);
    const int rows = rowCount();
    for (int row = 0; row < rows; ++row) {
        if (controller_->operations()[size_t(row)]->inFilePath() == path)
            emit dataChanged(index(row, FormatColumn), index(row, LengthColumn));
    }
}

std::shared_ptr<FileEncodeOperation> QueueTableModel::jobAt(int row) const {
    const auto& jobs = controller_->operations();
    if (row < 0 || size_t(row) >= jobs.size())
        return nullptr;
    return jobs[size_t(row)];
}

int QueueTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : int(controller_->operations().size());
}

int QueueTableModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : ColumnCount;
}

QString QueueTableModel::statusText(const FileEncodeOperation& job) const {
    if (job.isExecuting())
        return QString::fromStdString(job.currentStatus());
    if (job.isFinished()) {
        if (job.isCancelled())
            return tr("Cancelled");
        return job.success() ? (job.skipped() ? tr("Skipped") : tr("Done")) : tr("Failed");
    }
    return tr("Queued");
}

QVariant QueueTableModel::data(const QModelIndex& index, int role) const {
    const auto job = jobAt(index.row());
    if (!job)
        return {};
    const std::string path = job->inFilePath();
    const std::shared_ptr<const AudioMetadata> facts = factsFor(path);
    if (role == Qt::ToolTipRole)
        return QString::fromStdString(path);
    if (role == ProgressRole) {
        if (!job->isExecuting() || job->progressUnknown())
            return -1.0;
        return double(job->percentComplete()) * 100.0;
    }
    if (role == Qt::TextAlignmentRole && index.column() == LengthColumn)
        return int(Qt::AlignRight | Qt::AlignVCenter);
    if (role != Qt::DisplayRole)
        return {};
    switch (index.column()) {
    case NameColumn:
        return QString::fromStdString(std::filesystem::path(path).filename().string());
    case FormatColumn:
        return facts && facts->sourceFormat() ? QString::fromStdString(*facts->sourceFormat())
                                              : QString();
    case LengthColumn:
        if (!facts || !facts->sourceLength())
            return QString();
        return ValueFormatters::duration(*facts->sourceLength());
    case StatusColumn:
        return statusText(*job);
    default:
        return {};
    }
}

QVariant QueueTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    switch (section) {
    case NameColumn:
        return tr("File");
    case FormatColumn:
        return tr("Format");
    case LengthColumn:
        return tr("Length");
    case StatusColumn:
        return tr("Status");
    default:
        return {};
    }
}

} // namespace velvox
