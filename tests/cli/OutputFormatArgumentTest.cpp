// Output formats as written on the command line: every type alone, the keys and their
// aliases, and formats that must be refused with the bad part named.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/OutputFormatArgument.h"
#include "jobs/EncoderSettings.h"
#include "platform/CoreAudioTypes.h"

using namespace velvox;

namespace {

std::unique_ptr<EncoderSettings> parse(const std::string& format) {
    return OutputFormatArgument::parse(format);
}

// The message of the UsageError that parsing `format` raises, or a note that
// none was raised.
std::string refusal(const std::string& format) {
    try {
        OutputFormatArgument::parse(format);
    } catch (const OutputFormatArgument::UsageError& e) {
        return e.what();
    }
    return "(accepted)";
}

} // namespace

TEST(OutputFormatArgument, EveryTypeAloneIsACompleteFormatThatSurvivesStoring) {
    struct Case {
        std::string format;
        EncoderType type;
        std::string extension;
        std::string description;
    };
    const std::vector<Case> cases = {
        {"mp3", EncoderTypeMP3, "mp3", "MP3 - VBR Quality 8"},
        {"coreaudio", EncoderTypeCoreAudio, "m4a", "AAC - 256.00 kbps"},
        {"flac", EncoderTypeFLAC, "flac", "FLAC - Compression Level 5"},
        {"oggflac", EncoderTypeOggFLAC, "oga", "Ogg FLAC - Compression Level 5"},
        {"vorbis", EncoderTypeOggVorbis, "ogg", "Ogg Vorbis - VBR Quality 5"},
        {"sndfile", EncoderTypeSndFile, "sd2", "Sound Designer II - LPCM"},
        {"ape", EncoderTypeMonkeysAudio, "ape", "Monkeys Audio - Compression Level Normal"},
        {"tta", EncoderTypeTrueAudio, "tta", "True Audio - TTA"},
        {"speex", EncoderTypeOggSpeex, "spx", "Ogg Speex - VBR Quality 8"},
        {"opus", EncoderTypeOpus, "opus", "Opus - 128 kbps VBR"},
    };
    ASSERT_EQ(OutputFormatArgument::typeNames().size(), cases.size());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        const auto s = parse(c.format);
        EXPECT_EQ(OutputFormatArgument::typeNames()[c.type], c.format);
        EXPECT_EQ(s->encoderType(), c.type);
        EXPECT_TRUE(s->enabled());
        EXPECT_EQ(s->encoderAction(), EncoderActionEncode);
        EXPECT_EQ(s->extension(), c.extension);
        EXPECT_EQ(s->completeDescription(), c.description);
        // Same output as the format read back from the preferences.
        const auto stored = EncoderSettings::settingsWithDictionary(s->settingsDictionary());
        EXPECT_TRUE(stored->isDuplicateOf(*s));
        EXPECT_EQ(stored->completeDescription(), c.description);
        // Types are matched without regard to case.
        std::string upper = c.format;
        for (char& ch : upper)
            ch = char(std::toupper(static_cast<unsigned char>(ch)));
        EXPECT_EQ(parse(upper)->completeDescription(), c.description);
    }

    // Values each encoder reads, as they must be for it to accept them.
    const auto mp3 = parse("mp3");
    EXPECT_EQ(mp3->bitrateMethod(), BitrateMethodVBR);
    EXPECT_EQ(mp3->vbrQuality(), 8); // LAME -V 2
    EXPECT_EQ(mp3->bitrate(), 192);  // kbit/s
    EXPECT_EQ(parse("flac")->flacCompressionLevel(), 5u);
    EXPECT_EQ(parse("sndfile")->fileType(), 0x160000u);
    EXPECT_EQ(parse("ape")->macCompressionLevel(), 2000);
    const auto speex = parse("speex");
    EXPECT_EQ(speex->framesPerPacket(), 1u);
    EXPECT_EQ(speex->quality(), 3);
    const auto opus = parse("opus");
    EXPECT_EQ(opus->bitrate(), 128000);
    EXPECT_EQ(opus->framesPerPacket(), 960u);
    const auto aac = parse("coreaudio");
    EXPECT_EQ(aac->fileType(), fourCharCode("m4af"));
    EXPECT_EQ(aac->formatID(), kAudioFormatMPEG4AAC);
}

TEST(OutputFormatArgument, BadFormatsNameWhatIsWrong) {
    struct Case {
        std::string format;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"mp4", "unknown output type 'mp4'"},
        {"mp4:level=5", "unknown output type 'mp4'"},
        {"", "missing output type in ''"},
        {":level=5", "missing output type"},
        {"flac:lvl=5", "unknown key 'lvl' in 'flac:lvl=5'"},
        {"mp3:level=5", "unknown key 'level' in 'mp3:level=5'"},
        {"flac:denoise=yes", "unknown key 'denoise'"},
        {"flac:encoderType=4", "unknown key 'encoderType'"},
        {"flac:level=x", "bad value 'x' for 'level'"},
        {"flac:level=9", "bad value '9' for 'level'"},
        {"flac:level=", "bad value '' for 'level'"},
        {"flac:level", "expected key=value, not 'level'"},
        {"flac:=5", "expected key=value, not '=5'"},
        {"flac:", "empty setting in 'flac:'"},
        {"flac:level=5,,ext=fla", "empty setting"},
        {"flac:level=5,flacCompressionLevel=6", "'flacCompressionLevel' sets the same value as "
                                                "'level'"},
        {"flac:ext=a/b", "bad value 'a/b' for 'ext'"},
        {"flac:ext=", "bad value '' for 'ext'"},
        {"flac:rate=44.1005k", "bad value '44.1005k' for 'rate'"},
        {"flac:rate=-44100", "bad value '-44100' for 'rate'"},
        {"flac:bits=12", "bad value '12' for 'bits'"},
        {"flac:channels=5", "bad value '5' for 'channels'"},
        {"flac:mode=4", "bad value '4' for 'mode'"},
        {"flac:enabled=maybe", "bad value 'maybe' for 'enabled'"},
        {"tta:bits=32", "bad value '32' for 'bits'"},
        {"ape:level=6", "bad value '6' for 'level'"},
        {"mp3:bitrate=500", "bad value '500' for 'bitrate'"},
        {"mp3:quality=11", "bad value '11' for 'quality'"},
        {"opus:bitrate=128", "bad value '128' for 'bitrate'"},
        {"opus:method=abr", "bad value 'abr' for 'method'"},
        {"opus:frames=100", "bad value '100' for 'frames'"},
        {"vorbis:method=cvbr", "bad value 'cvbr' for 'method'"},
        {"vorbis:method=fast", "bad value 'fast' for 'method'"},
        {"vorbis:vbrQuality=11", "bad value '11' for 'vbrQuality'"},
        {"speex:frames=0", "bad value '0' for 'frames'"},
        {"coreaudio:fileType=TOOLONG", "bad value 'TOOLONG' for 'fileType'"},
        {"coreaudio:formatFlags=big", "bad value 'big' for 'formatFlags'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        const std::string message = refusal(c.format);
        EXPECT_NE(message.find(c.message), std::string::npos) << message;
    }
}
