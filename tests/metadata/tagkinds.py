#!/usr/bin/python3
"""Writes a set of tags into a file with mutagen, or reads any file's tags
back, in one vocabulary: upper-case property names to lists of values, with
"PICTURE" (and "PICTURE DESCRIPTION") for the first picture.

  tagkinds.py write FILE TAGS.json PICTURE.png   (FLAC is left to metaflac)
  tagkinds.py read FILE                          prints the JSON
"""
import base64
import json
import sys

import mutagen
from mutagen import apev2, asf, id3, mp4
from mutagen.flac import Picture

# ID3v2 frames for the names that have one, as the tagging tools use them.
ID3_FRAMES = {
    "TITLE": "TIT2", "ARTIST": "TPE1", "ALBUM": "TALB", "ALBUMARTIST": "TPE2",
    "COMPOSER": "TCOM", "DATE": "TDRC", "GENRE": "TCON", "GROUPING": "TIT1",
    "BPM": "TBPM", "COMPILATION": "TCMP", "COPYRIGHT": "TCOP", "ISRC": "TSRC",
    "KEY": "TKEY", "LABEL": "TPUB", "DISCSUBTITLE": "TSST", "ARTISTSORT": "TSOP",
    "ALBUMARTISTSORT": "TSO2", "TITLESORT": "TSOT", "MOOD": "TMOO",
    "CONDUCTOR": "TPE3", "REMIXER": "TPE4", "LYRICIST": "TEXT", "ENCODING": "TSSE",
    "ENCODEDBY": "TENC",
}
MUSICBRAINZ_NAMES = {
    "MUSICBRAINZ_ALBUMID": "MusicBrainz Album Id",
    "MUSICBRAINZ_ARTISTID": "MusicBrainz Artist Id",
    "MUSICBRAINZ_ALBUMARTISTID": "MusicBrainz Album Artist Id",
    "MUSICBRAINZ_RELEASEGROUPID": "MusicBrainz Release Group Id",
    "MUSICBRAINZ_TRACKID": "MusicBrainz Track Id",
}
MP4_ATOMS = {
    "TITLE": "\xa9nam", "ARTIST": "\xa9ART", "ALBUM": "\xa9alb", "ALBUMARTIST": "aART",
    "COMPOSER": "\xa9wrt", "DATE": "\xa9day", "GENRE": "\xa9gen", "COMMENT": "\xa9cmt",
    "GROUPING": "\xa9grp", "LYRICS": "\xa9lyr", "COPYRIGHT": "cprt",
    "ARTISTSORT": "soar", "ALBUMARTISTSORT": "soaa", "TITLESORT": "sonm",
    "ENCODEDBY": "\xa9too",
}
MP4_FREEFORM = dict(MUSICBRAINZ_NAMES, KEY="initialkey")
ASF_NAMES = {
    "TITLE": "Title", "ARTIST": "Author", "ALBUM": "WM/AlbumTitle",
    "ALBUMARTIST": "WM/AlbumArtist", "COMPOSER": "WM/Composer", "DATE": "WM/Year",
    "GENRE": "WM/Genre", "COMMENT": "Description", "GROUPING": "WM/ContentGroupDescription",
    "LYRICS": "WM/Lyrics", "BPM": "WM/BeatsPerMinute", "COPYRIGHT": "Copyright",
    "ISRC": "WM/ISRC", "KEY": "WM/InitialKey", "LABEL": "WM/Publisher",
    "CATALOGNUMBER": "WM/CatalogNo", "BARCODE": "WM/Barcode",
    "DISCSUBTITLE": "WM/SetSubTitle", "ARTISTSORT": "WM/ArtistSortOrder",
    "ALBUMARTISTSORT": "WM/AlbumArtistSortOrder", "TITLESORT": "WM/TitleSortOrder",
    "MOOD": "WM/Mood", "CONDUCTOR": "WM/Conductor", "REMIXER": "WM/ModifiedBy",
    "LYRICIST": "WM/Writer", "ENCODEDBY": "WM/EncodedBy", "ARTISTS": "WM/ARTISTS",
    "MUSICBRAINZ_TRACKID": "MusicBrainz/Track Id",
    "MUSICBRAINZ_ALBUMID": "MusicBrainz/Album Id",
    "MUSICBRAINZ_ARTISTID": "MusicBrainz/Artist Id",
    "MUSICBRAINZ_ALBUMARTISTID": "MusicBrainz/Album Artist Id",
    "MUSICBRAINZ_RELEASEGROUPID": "MusicBrainz/Release Group Id",
    "COMPILATION": "WM/IsCompilation", "TRACKTOTAL": "WM/TrackTotal",
}
# APE item names where they differ from the property names.
APE_NAMES = {"REMIXER": "MIXARTIST", "DATE": "YEAR", "TRACKNUMBER": "TRACK"}
APE_READ_NAMES = dict(APE_NAMES, DISCNUMBER="DISC", ALBUMARTIST="ALBUM ARTIST")


def pairs(tags, number, total):
    if number in tags:
        yield "%s/%s" % (tags[number][0], tags[total][0]) if total in tags else tags[number][0]


def write_id3(path, tags, picture, description):
    t = id3.ID3()
    for name, values in tags.items():
        if name in ID3_FRAMES:
            t.add(getattr(id3, ID3_FRAMES[name])(encoding=3, text=values))
        elif name == "COMMENT":
            t.add(id3.COMM(encoding=3, lang="eng", desc="", text=values))
        elif name == "LYRICS":
            t.add(id3.USLT(encoding=3, lang="eng", desc="", text=values[0]))
        elif name == "MUSICBRAINZ_TRACKID":
            t.add(id3.UFID(owner="http://musicbrainz.org", data=values[0].encode()))
        elif name in ("TRACKNUMBER", "DISCNUMBER"):
            frame = id3.TRCK if name == "TRACKNUMBER" else id3.TPOS
            total = "TRACKTOTAL" if name == "TRACKNUMBER" else "DISCTOTAL"
            t.add(frame(encoding=3, text=list(pairs(tags, name, total))))
        elif name in ("TRACKTOTAL", "DISCTOTAL"):
            pass
        else:
            t.add(id3.TXXX(encoding=3, desc=MUSICBRAINZ_NAMES.get(name, name), text=values))
    t.add(id3.APIC(encoding=3, mime="image/png", type=3, desc=description, data=picture))
    t.save(path, v2_version=4)


def write_mp4(path, tags, picture, description):
    f = mp4.MP4(path)
    for name, values in tags.items():
        if name in MP4_ATOMS:
            f[MP4_ATOMS[name]] = values
        elif name == "TRACKNUMBER":
            f["trkn"] = [(int(values[0]), int(tags.get("TRACKTOTAL", ["0"])[0]))]
        elif name == "DISCNUMBER":
            f["disk"] = [(int(values[0]), int(tags.get("DISCTOTAL", ["0"])[0]))]
        elif name in ("TRACKTOTAL", "DISCTOTAL"):
            pass
        elif name == "BPM":
            f["tmpo"] = [int(values[0])]
        elif name == "COMPILATION":
            f["cpil"] = values[0] == "1"
        else:
            # The tools write ReplayGain in lower case; readers ignore case.
            atom = MP4_FREEFORM.get(name, name.lower() if name.startswith("REPLAYGAIN") else name)
            f["----:com.apple.iTunes:" + atom] = [v.encode() for v in values]
    f["covr"] = [mp4.MP4Cover(picture, imageformat=mp4.MP4Cover.FORMAT_PNG)]
    f.save()


def write_ape(path, tags, picture, description):
    t = apev2.APEv2()
    for name, values in tags.items():
        t[APE_NAMES.get(name, name)] = values
    t["Cover Art (Front)"] = apev2.APEValue(b"cover.png\x00" + picture, apev2.BINARY)
    t.save(path)


def write_asf(path, tags, picture, description):
    f = asf.ASF(path)
    for name, values in tags.items():
        # One value each: mutagen keeps the first of several in one header
        # object and the rest in another, which TagLib 1.13 reads in the
        # other order.
        if name == "TRACKNUMBER":
            f["WM/TrackNumber"] = values[:1]
        elif name == "DISCNUMBER":
            f["WM/PartOfSet"] = list(pairs(tags, name, "DISCTOTAL"))
        elif name != "DISCTOTAL":
            f[ASF_NAMES.get(name, name)] = values[:1]
    blob = (bytes([3]) + len(picture).to_bytes(4, "little") + "image/png\0".encode("utf-16-le")
            + (description + "\0").encode("utf-16-le") + picture)
    f["WM/Picture"] = [asf.ASFByteArrayAttribute(blob)]
    f.save()


def write_xiph(path, tags, picture, description):
    f = mutagen.File(path)
    for name, values in tags.items():
        f[name] = values
    p = Picture()
    p.type, p.mime, p.desc, p.data = 3, "image/png", description, picture
    f["METADATA_BLOCK_PICTURE"] = [base64.b64encode(p.write()).decode()]
    f.save()


# ---- reading -------------------------------------------------------------

def add(out, name, values):
    values = [str(v) for v in values if str(v) != ""]
    if values and name not in out:
        out[name] = values


def split_pair(out, text, number, total):
    head, _, tail = str(text).partition("/")
    add(out, number, [head])
    add(out, total, [tail])


def read_id3(t, out):
    frames = {v: k for k, v in ID3_FRAMES.items()}
    txxx = {v.upper(): k for k, v in MUSICBRAINZ_NAMES.items()}
    for frame in t.values():
        fid = frame.FrameID
        if fid in ("TRCK", "TPOS"):
            names = ("TRACKNUMBER", "TRACKTOTAL") if fid == "TRCK" else ("DISCNUMBER", "DISCTOTAL")
            split_pair(out, frame.text[0], *names)
        elif fid == "TDRC":
            add(out, "DATE", [str(frame.text[0])])
        elif fid in frames:
            add(out, frames[fid], [str(v) for v in frame.text])
        elif fid == "TXXX":
            add(out, txxx.get(frame.desc.upper(), frame.desc.upper()), frame.text)
        elif fid == "COMM" and frame.desc in ("", "ID3v1 Comment"):
            add(out, "COMMENT", frame.text)
        elif fid == "USLT":
            add(out, "LYRICS", [frame.text])
        elif fid == "UFID" and frame.owner == "http://musicbrainz.org":
            add(out, "MUSICBRAINZ_TRACKID", [frame.data.decode()])
        elif fid == "APIC" and "PICTURE" not in out:
            out["PICTURE"] = [frame.data.hex()]
            add(out, "PICTURE DESCRIPTION", [frame.desc])


def read_mp4(t, out):
    atoms = {v: k for k, v in MP4_ATOMS.items()}
    free = {v.upper(): k for k, v in MP4_FREEFORM.items()}
    for atom, values in t.items():
        if atom in atoms:
            add(out, atoms[atom], values)
        elif atom in ("trkn", "disk"):
            names = ("TRACKNUMBER", "TRACKTOTAL") if atom == "trkn" else ("DISCNUMBER", "DISCTOTAL")
            add(out, names[0], [values[0][0]])
            if values[0][1]:
                add(out, names[1], [values[0][1]])
        elif atom == "tmpo":
            add(out, "BPM", values)
        elif atom == "cpil":
            add(out, "COMPILATION", ["1"] if values else [])
        elif atom == "covr":
            out["PICTURE"] = [bytes(values[0]).hex()]
        elif atom.startswith("----:"):
            name = atom.split(":", 2)[2].upper()
            if name != "ITUNSMPB":
                add(out, free.get(name, name), [bytes(v).decode() for v in values])


def read_ape(t, out):
    names = {v: k for k, v in APE_READ_NAMES.items()}
    for key, value in t.items():
        name = names.get(key.upper(), key.upper())
        if value.kind == apev2.BINARY:
            if key.upper().startswith("COVER ART") and "PICTURE" not in out:
                out["PICTURE"] = [bytes(value).split(b"\0", 1)[1].hex()]
        elif name in ("TRACKNUMBER", "DISCNUMBER"):
            total = "TRACKTOTAL" if name == "TRACKNUMBER" else "DISCTOTAL"
            if "/" in str(value):
                split_pair(out, str(value), name, total)
            else:
                add(out, name, list(value))
        else:
            add(out, name, list(value))


ASF_TECHNICAL = ("WMFSDKVersion", "WMFSDKNeeded", "IsVBR", "DeviceConformanceTemplate")


def read_asf(t, out):
    names = {v: k for k, v in ASF_NAMES.items()}
    for key, values in t.items():
        if key == "WM/TrackNumber":
            add(out, "TRACKNUMBER", [str(v) for v in values])
        elif key == "WM/PartOfSet":
            split_pair(out, str(values[0]), "DISCNUMBER", "DISCTOTAL")
        elif key == "WM/Picture":
            blob = bytes(values[0].value)
            size = int.from_bytes(blob[1:5], "little")
            out["PICTURE"] = [blob[-size:].hex()]
            texts = blob[5:-size].decode("utf-16-le").split("\0")
            add(out, "PICTURE DESCRIPTION", [texts[1]])
        elif key in names:
            add(out, names[key], [str(v) for v in values])
        elif not key.startswith("WM/") and key not in ASF_TECHNICAL:
            add(out, key.upper(), [str(v) for v in values])


def read_xiph(t, out, pictures):
    for key, values in t.items():
        name = key.upper()
        if name == "METADATA_BLOCK_PICTURE":
            p = Picture(base64.b64decode(values[0]))
            pictures.append(p)
        elif name in ("DESCRIPTION", "COMMENT"):
            add(out, "COMMENT", values)
        elif name not in out:
            add(out, name, values)
    if pictures and "PICTURE" not in out:
        out["PICTURE"] = [pictures[0].data.hex()]
        add(out, "PICTURE DESCRIPTION", [pictures[0].desc])
        out["PICTURE SIZE"] = ["%dx%dx%d" % (pictures[0].width, pictures[0].height,
                                              pictures[0].depth)]


# Containers mutagen does not read (CAF, AU, SD2): their info strings as
# FFmpeg reads them.
FFPROBE_NAMES = {"COMMENTS": "COMMENT", "YEAR": "DATE", "TEMPO": "BPM",
                 "KEY SIGNATURE": "KEY", "ENCODING APPLICATION": "ENCODEDBY",
                 "TRACK NUMBER": "TRACKNUMBER"}


def read_ffprobe(path, out):
    import subprocess
    probe = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format_tags",
                            "-of", "json", path], capture_output=True, text=True)
    tags = json.loads(probe.stdout or "{}").get("format", {}).get("tags", {})
    for key, value in tags.items():
        name = FFPROBE_NAMES.get(key.upper(), key.upper())
        if name == "TRACKNUMBER":
            split_pair(out, value, "TRACKNUMBER", "TRACKTOTAL")
        else:
            add(out, name, [value])
    return out


def read(path):
    f = mutagen.File(path)
    out = {}
    if f is None:
        return read_ffprobe(path, out)
    pictures = list(getattr(f, "pictures", []))
    tags = f.tags
    if isinstance(tags, id3.ID3):
        read_id3(tags, out)
    elif isinstance(tags, mp4.MP4Tags):
        read_mp4(tags, out)
    elif isinstance(tags, apev2.APEv2):
        read_ape(tags, out)
    elif isinstance(tags, asf.ASFTags):
        read_asf(tags, out)
    elif tags is not None and hasattr(tags, "vendor"):
        read_xiph(tags, out, pictures)
    elif pictures:
        read_xiph({}, out, pictures)
    # APE beside ID3v2 in MP3: mutagen reads ID3 (v2, else v1) only.
    if path.lower().endswith(".mp3"):
        try:
            read_ape(apev2.APEv2(path), out)
        except apev2.APENoHeaderError:
            pass
    return out


def main():
    if sys.argv[1] == "read":
        json.dump(read(sys.argv[2]), sys.stdout, indent=1, sort_keys=True)
        return
    path, tags, picture = sys.argv[2], json.load(open(sys.argv[3])), open(sys.argv[4], "rb").read()
    description = sys.argv[5]
    lower = path.lower()
    writer = (write_id3 if lower.endswith(".mp3") else write_mp4 if lower.endswith(".m4a")
              else write_ape if lower.endswith((".wv", ".ape", ".mpc")) else write_asf
              if lower.endswith(".wma") else write_xiph)
    writer(path, tags, picture, description)


if __name__ == "__main__":
    main()
