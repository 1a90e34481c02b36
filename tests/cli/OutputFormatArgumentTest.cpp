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
        {"opus:bitrate=0.5k", "bad value '0.5k' for 'bitrate'"},
        {"mp3:V=10", "bad value '10' for 'V'"},
        {"coreaudio:codec=aach", "The Core Audio Encoder Can Not Write"},
        {"aac:codec=samr", "The Core Audio Encoder Can Not Write"},
        {"wav:endian=middle", "bad value 'middle' for 'endian'"},
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

TEST(OutputFormatArgument, TypesPresetsAndUnitsComeFromTheSchema) {
    // kbit/s on the command line, bit/s where the record keeps bit/s.
    EXPECT_EQ(OutputFormatArgument::parse("opus:bitrate=96")->bitrate(), 96000);
    EXPECT_EQ(OutputFormatArgument::parse("mp3:method=cbr,bitrate=320k")->bitrate(), 320);
    // LAME's -V scale, stored the other way round.
    EXPECT_EQ(OutputFormatArgument::parse("mp3:V=0")->vbrQuality(), 10);
    EXPECT_EQ(OutputFormatArgument::parse("mp3")->vbrQuality(), 8);
    // A bit rate alone switches a VBR default to the method that uses it.
    EXPECT_EQ(OutputFormatArgument::parse("mp3:bitrate=128")->bitrateMethod(), BitrateMethodCBR);
    // Presets settle container, codec, extension and byte order.
    const auto aiff = OutputFormatArgument::parse("aiff:bits=24");
    EXPECT_EQ(aiff->encoderType(), EncoderTypeCoreAudio);
    EXPECT_EQ(aiff->fileType(), fourCharCode("AIFF"));
    EXPECT_EQ(aiff->formatID(), kAudioFormatLinearPCM);
    EXPECT_EQ(aiff->extension(), "aiff");
    EXPECT_TRUE(aiff->formatFlags() & kAudioFormatFlagIsBigEndian);
    EXPECT_EQ(aiff->completeDescription(), "AIFF - LPCM - 24 bit BE");
    const auto alac = OutputFormatArgument::parse("alac");
    EXPECT_EQ(alac->formatID(), kAudioFormatAppleLossless);
    EXPECT_EQ(alac->extension(), "m4a");
    EXPECT_EQ(OutputFormatArgument::parse("ape:level=insane")->macCompressionLevel(), 5000);
    EXPECT_EQ(OutputFormatArgument::parse("flac:level=uncompressed")->flacCompressionLevel(), 9u);
}
