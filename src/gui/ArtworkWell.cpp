#include "gui/ArtworkWell.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QPixmap>
#include <QUrl>

#include "metadata/AlbumArtwork.h"

namespace velvox {

namespace {

constexpr int kSide = 160;

// The first local file among the dragged URLs, or nothing.
QString droppedFile(const QMimeData* data) {
    if (!data || !data->hasUrls())
        return QString();
    for (const QUrl& url : data->urls())
        if (url.isLocalFile())
            return url.toLocalFile();
    return QString();
}

} // namespace

ArtworkWell::ArtworkWell(QWidget* parent) : QLabel(parent) {
    setObjectName("artworkWell");
    setAcceptDrops(true);
    setAlignment(Qt::AlignCenter);
    setFixedSize(kSide, kSide);
    setFrameShape(QFrame::StyledPanel);
    setToolTip(tr("Drop a picture here"));
}

void ArtworkWell::showArtwork(const std::shared_ptr<AlbumArtwork>& artwork, bool mixed) {
    QPixmap picture;
    if (artwork && artwork->data())
        picture.loadFromData(artwork->data()->data(), uint(artwork->data()->size()));
    if (!picture.isNull()) {
        setPixmap(picture.scaled(size(), Qt::KeepAspectRatio, Qt::SmoothTransformation));
        return;
    }
    setPixmap(QPixmap());
    setText(mixed ? tr("Mixed") : artwork ? tr("Artwork") : tr("No Artwork"));
}

void ArtworkWell::dragEnterEvent(QDragEnterEvent* event) {
    if (!droppedFile(event->mimeData()).isEmpty())
        event->acceptProposedAction();
}

void ArtworkWell::dropEvent(QDropEvent* event) {
    const QString path = droppedFile(event->mimeData());
    if (path.isEmpty())
        return;
    event->acceptProposedAction();
    emit fileDropped(path);
}

} // namespace velvox
