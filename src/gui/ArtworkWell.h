#pragma once
// The album artwork of the tag editor: shows the picture (or why there is
// none) and takes picture files dropped on it.
//
// GUI thread only.

#include <memory>

#include <QLabel>

namespace velvox {

class AlbumArtwork;

class ArtworkWell : public QLabel {
    Q_OBJECT
public:
    explicit ArtworkWell(QWidget* parent = nullptr);

    // Null shows "No Artwork", or "Mixed" when the files differ.
    void showArtwork(const std::shared_ptr<AlbumArtwork>& artwork, bool mixed);

signals:
    void fileDropped(const QString& path);

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;
};

} // namespace velvox
