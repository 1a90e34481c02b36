#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "jobs/EncoderSettings.h"
#include "platform/CoreAudioTypes.h"

using nlohmann::json;
using namespace velvox;

namespace {

constexpr uint32_t kSndFileSD2 = 0x160000;
constexpr uint32_t kSndFileAIFF = 0x020000;

// A record with every field set to a value distinct from its default.
std::unique_ptr<EncoderSettings> fullyPopulated() {
    auto s = std::make_unique<EncoderSettings>();
    s->setEnabled(true);
    s->setEncoderSetting(77);
    s->setEncoderType(EncoderTypeOggSpeex);
    s->setExtension("spx");
    s->setBitrate(24600);
    s->setQuality(8);
    s->setSampleRate(32000);
    s->setBitrateMethod(BitrateMethodABR);
    s->setChannelMode(3);
    s->setBitDepth(24);
    s->setVbrQuality(-4);
    s->setFramesPerPacket(3);
    s->setEncoderAction(EncoderActionUpdateMetadata);
    s->setFileType(fourCharCode("caff"));
    s->setFormatID(fourCharCode("lpcm"));
    s->setFormatFlags(0xE);
    s->setFlacCompressionLevel(7);
    s->setFlacVerifyEncoding(true);
    s->setMacCompressionLevel(4000);
    s->setSpeexDenoise(true);
    s->setSpeexAdaptiveGainControl(true);
    s->setSpeexVoiceActivityDetection(true);
    s->setSpeexDiscontinuousTransmission(true);
    return s;
}

void expectSameFields(const EncoderSettings& a, const EncoderSettings& b) {
    EXPECT_EQ(a.enabled(), b.enabled());
    EXPECT_EQ(a.encoderType(), b.encoderType());
    EXPECT_EQ(a.extension(), b.extension());
    EXPECT_EQ(a.bitrate(), b.bitrate());
    EXPECT_EQ(a.quality(), b.quality());
    EXPECT_EQ(a.sampleRate(), b.sampleRate());
    EXPECT_EQ(a.bitrateMethod(), b.bitrateMethod());
    EXPECT_EQ(a.channelMode(), b.channelMode());
    EXPECT_EQ(a.bitDepth(), b.bitDepth());
    EXPECT_EQ(a.vbrQuality(), b.vbrQuality());
    EXPECT_EQ(a.framesPerPacket(), b.framesPerPacket());
    EXPECT_EQ(a.encoderAction(), b.encoderAction());
    EXPECT_EQ(a.fileType(), b.fileType());
    EXPECT_EQ(a.formatID(), b.formatID());
    EXPECT_EQ(a.formatFlags(), b.formatFlags());
    EXPECT_EQ(a.flacCompressionLevel(), b.flacCompressionLevel());
    EXPECT_EQ(a.flacVerifyEncoding(), b.flacVerifyEncoding());
    EXPECT_EQ(a.macCompressionLevel(), b.macCompressionLevel());
    EXPECT_EQ(a.speexDenoise(), b.speexDenoise());
    EXPECT_EQ(a.speexAdaptiveGainControl(), b.speexAdaptiveGainControl());
    EXPECT_EQ(a.speexVoiceActivityDetection(), b.speexVoiceActivityDetection());
    EXPECT_EQ(a.speexDiscontinuousTransmission(), b.speexDiscontinuousTransmission());
}

std::unique_ptr<EncoderSettings> coreAudio(uint32_t fileType, uint32_t formatID) {
    auto s = std::make_unique<EncoderSettings>();
    s->setEncoderType(EncoderTypeCoreAudio);
    s->setFileType(fileType);
    s->setFormatID(formatID);
    return s;
}

std::unique_ptr<EncoderSettings> ofType(EncoderType type) {
    auto s = std::make_unique<EncoderSettings>();
    s->setEncoderType(type);
    return s;
}

} // namespace

TEST(EncoderSettingsDictionary, RoundTripKeepsEveryKeyWithStoredTypes) {
    auto original = fullyPopulated();
    const json dictionary = original->settingsDictionary();

    const std::vector<std::string> booleans = {"enabled",
                                               "flacVerifyEncoding",
                                               "speexDenoise",
                                               "speexAdaptiveGainControl",
                                               "speexVoiceActivityDetection",
                                               "speexDiscontinuousTransmission"};
    const std::vector<std::string> integers = {
        "encoderType", "bitrate",  "quality",     "sampleRate",           "method",
        "mode",        "bitDepth", "vbrQuality",  "framesPerPacket",      "encoderAction",
        "fileType",    "formatID", "formatFlags", "flacCompressionLevel", "macCompressionLevel"};
    EXPECT_EQ(dictionary.size(), booleans.size() + integers.size() + 1);
    for (const auto& key : booleans) {
        ASSERT_TRUE(dictionary.contains(key)) << key;
        EXPECT_TRUE(dictionary[key].is_boolean()) << key;
    }
    for (const auto& key : integers) {
        ASSERT_TRUE(dictionary.contains(key)) << key;
        EXPECT_TRUE(dictionary[key].is_number_integer()) << key;
    }
    EXPECT_EQ(dictionary["extension"], "spx");
    EXPECT_EQ(dictionary["method"], int(BitrateMethodABR));
    EXPECT_EQ(dictionary["mode"], 3);
    EXPECT_EQ(dictionary["vbrQuality"], -4);
    EXPECT_FALSE(dictionary.contains("encoderSetting"));

    // Through the defaults store's text form and back.
    EncoderSettings restored;
    restored.setEncoderSetting(5);
    restored.initWithDictionary(json::parse(dictionary.dump()));
    expectSameFields(restored, *original);
    EXPECT_EQ(restored.encoderSetting(), 0);
    EXPECT_EQ(restored.settingsDictionary(), dictionary);
}

TEST(EncoderSettingsDictionary, NumbersAreStoredAsThirtyTwoBitIntegers) {
    EncoderSettings s;
    s.setSampleRate(3000000000LL); // above 2^31 - 1
    s.setBitrate((int64_t(1) << 32) + 16);
    s.setVbrQuality(-(int64_t(1) << 33) - 1);
    s.setFormatFlags(0x80000002u);
    s.setFileType(fourCharCode("caff"));
    const json d = s.settingsDictionary();
    EXPECT_EQ(d["sampleRate"].get<int64_t>(), -1294967296LL);
    EXPECT_EQ(d["bitrate"].get<int64_t>(), 16);
    EXPECT_EQ(d["vbrQuality"].get<int64_t>(), -1);
    EXPECT_EQ(d["formatFlags"].get<int64_t>(), int64_t(INT32_MIN) + 2);
    EXPECT_EQ(d["fileType"].get<int64_t>(), 0x63616666);

    auto back = EncoderSettings::settingsWithDictionary(json::parse(d.dump()));
    EXPECT_NE(back->sampleRate(), 3000000000LL);
    EXPECT_EQ(back->sampleRate(), -1294967296LL);
    EXPECT_EQ(back->bitrate(), 16);
    EXPECT_EQ(back->vbrQuality(), -1);
    // The unsigned fields keep their bit pattern through the signed storage.
    EXPECT_EQ(back->formatFlags(), 0x80000002u);
    EXPECT_EQ(back->fileType(), fourCharCode("caff"));
}

TEST(EncoderSettingsDictionary, MissingKeysReadAsZeroNoAndAbsent) {
    EncoderSettings s;
    s.initWithDictionary(json{{"encoderType", 2}, {"flacCompressionLevel", 5}});
    EXPECT_FALSE(s.enabled());
    EXPECT_FALSE(s.extension().has_value());
    EXPECT_EQ(s.encoderType(), EncoderTypeFLAC);
    EXPECT_EQ(s.flacCompressionLevel(), 5u);
    EXPECT_EQ(s.bitrate(), 0);
    EXPECT_EQ(s.sampleRate(), 0);
    EXPECT_EQ(s.bitrateMethod(), BitrateMethodCBR);
    EXPECT_EQ(s.fileType(), 0u);
    EXPECT_FALSE(s.flacVerifyEncoding());
    EXPECT_FALSE(s.speexDenoise());
    // An absent extension stays absent in the stored form.
    EXPECT_FALSE(s.settingsDictionary().contains("extension"));

    EncoderSettings empty;
    empty.initWithDictionary(json::object());
    expectSameFields(empty, EncoderSettings());
    // Not a dictionary at all: every field at its default.
    EncoderSettings fromArray;
    fromArray.initWithDictionary(json::array({1, 2, 3}));
    expectSameFields(fromArray, EncoderSettings());
}

TEST(EncoderSettingsDictionary, ForeignNumberFormsAreReadAsThirtyTwoBitIntegers) {
    // Hand-edited or foreign defaults files: floats, booleans, unsigned
    // 64-bit values, wrong types.
    const json d = {{"enabled", 1},
                    {"bitrate", 192.9},
                    {"quality", true},
                    {"sampleRate", 1e12},
                    {"vbrQuality", uint64_t(0xFFFFFFFFFFFFFFFFull)},
                    {"bitDepth", -1.0e300},
                    {"extension", 42},
                    {"flacVerifyEncoding", 0},
                    {"mode", "2"}};
    auto s = EncoderSettings::settingsWithDictionary(d);
    EXPECT_TRUE(s->enabled());
    EXPECT_EQ(s->bitrate(), 192);
    EXPECT_EQ(s->quality(), 1);
    EXPECT_EQ(s->sampleRate(), INT32_MAX);
    EXPECT_EQ(s->vbrQuality(), -1);
    EXPECT_EQ(s->bitDepth(), uint32_t(INT32_MIN));
    EXPECT_FALSE(s->extension().has_value());
    EXPECT_FALSE(s->flacVerifyEncoding());
    EXPECT_EQ(s->channelMode(), 0);
}

TEST(EncoderSettingsDescription, OutputFormatNames) {
    const std::vector<std::pair<EncoderType, std::string>> plain = {
        {EncoderTypeMP3, "MP3"},
        {EncoderTypeFLAC, "FLAC"},
        {EncoderTypeOggFLAC, "Ogg FLAC"},
        {EncoderTypeOggVorbis, "Ogg Vorbis"},
        {EncoderTypeMonkeysAudio, "Monkeys Audio"},
        {EncoderTypeTrueAudio, "True Audio"},
        {EncoderTypeOggSpeex, "Ogg Speex"},
        {EncoderTypeOpus, "Opus"},
        {EncoderType(10), ""},
        {EncoderType(-1), ""}};
    for (const auto& [type, text] : plain)
        EXPECT_EQ(ofType(type)->outputFormatDescription(), text) << int(type);

    auto sd2 = ofType(EncoderTypeSndFile);
    sd2->setFileType(kSndFileSD2);
    EXPECT_EQ(sd2->outputFormatDescription(), "Sound Designer II");
    sd2->setFileType(kSndFileAIFF);
    EXPECT_EQ(sd2->outputFormatDescription(), "");

    const std::vector<std::pair<const char*, std::string>> containers = {
        {"3gp2", "3GP2"},     {"3gpp", "3GP"},
        {"AIFC", "AIFC"},     {"AIFF", "AIFF"},
        {"NeXT", "NeXt/SUN"}, {"Sd2f", "Sound Designer II"},
        {"WAVE", "WAV"},      {"caff", "Core Audio Format"},
        {"adts", ""}};
    for (const auto& [code, text] : containers) {
        char c[5] = {code[0], code[1], code[2], code[3], 0};
        EXPECT_EQ(coreAudio(fourCharCode(c), fourCharCode("lpcm"))->outputFormatDescription(), text)
            << code;
    }
    for (const char* mpeg4 : {"m4af", "mp4f"}) {
        char c[5] = {mpeg4[0], mpeg4[1], mpeg4[2], mpeg4[3], 0};
        EXPECT_EQ(coreAudio(fourCharCode(c), fourCharCode("alac"))->outputFormatDescription(),
                  "Apple Lossless");
        EXPECT_EQ(coreAudio(fourCharCode(c), fourCharCode("aac "))->outputFormatDescription(),
                  "AAC");
        EXPECT_EQ(coreAudio(fourCharCode(c), fourCharCode("aach"))->outputFormatDescription(),
                  "AAC");
    }
}

TEST(EncoderSettingsDescription, EncodingTextsOfTheCodecEncoders) {
    auto mp3 = ofType(EncoderTypeMP3);
    mp3->setBitrate(192);
    mp3->setVbrQuality(2);
    mp3->setBitrateMethod(BitrateMethodCBR);
    EXPECT_EQ(mp3->encodingDescription(), "192.00 kbps CBR");
    mp3->setBitrateMethod(BitrateMethodABR);
    EXPECT_EQ(mp3->encodingDescription(), "192.00 kbps ABR");
    mp3->setBitrateMethod(BitrateMethodVBR);
    EXPECT_EQ(mp3->encodingDescription(), "VBR Quality 2");
    mp3->setBitrateMethod(BitrateMethodConstrainedVBR);
    EXPECT_EQ(mp3->encodingDescription(), "192.00 kbps CBR");

    for (EncoderType type : {EncoderTypeFLAC, EncoderTypeOggFLAC}) {
        auto flac = ofType(type);
        flac->setFlacCompressionLevel(0);
        EXPECT_EQ(flac->encodingDescription(), "Compression Level 0");
        flac->setFlacCompressionLevel(8);
        EXPECT_EQ(flac->encodingDescription(), "Compression Level 8");
        flac->setFlacCompressionLevel(9);
        EXPECT_EQ(flac->encodingDescription(), "Uncompressed");
    }

    for (EncoderType type : {EncoderTypeOggVorbis, EncoderTypeOggSpeex}) {
        auto s = ofType(type);
        s->setBitrate(192000);
        s->setVbrQuality(6);
        s->setBitrateMethod(BitrateMethodCBR);
        EXPECT_EQ(s->encodingDescription(), "192 kbps CBR");
        s->setBitrateMethod(BitrateMethodABR);
        EXPECT_EQ(s->encodingDescription(), "192 kbps ABR");
        s->setBitrateMethod(BitrateMethodVBR);
        EXPECT_EQ(s->encodingDescription(), "VBR Quality 6");
        s->setBitrateMethod(BitrateMethodConstrainedVBR);
        EXPECT_EQ(s->encodingDescription(), "*Unknown Settings*");
        s->setBitrate(24600); // rounds to whole kbit/s
        s->setBitrateMethod(BitrateMethodCBR);
        EXPECT_EQ(s->encodingDescription(), "25 kbps CBR");
    }

    auto opus = ofType(EncoderTypeOpus);
    opus->setBitrate(128000);
    opus->setBitrateMethod(BitrateMethodCBR);
    EXPECT_EQ(opus->encodingDescription(), "128 kbps CBR");
    opus->setBitrateMethod(BitrateMethodVBR);
    EXPECT_EQ(opus->encodingDescription(), "128 kbps VBR");
    opus->setBitrateMethod(BitrateMethodConstrainedVBR);
    EXPECT_EQ(opus->encodingDescription(), "128 kbps VBR Constrained");
    opus->setBitrateMethod(BitrateMethodABR);
    EXPECT_EQ(opus->encodingDescription(), "*Unknown Settings*");

    auto mac = ofType(EncoderTypeMonkeysAudio);
    const std::vector<std::pair<int32_t, std::string>> levels = {
        {1000, "Fast"},   {2000, "Normal"}, {3000, "High"}, {4000, "Extra High"},
        {5000, "Insane"}, {2500, "?"},      {0, "?"}};
    for (const auto& [level, name] : levels) {
        mac->setMacCompressionLevel(level);
        EXPECT_EQ(mac->encodingDescription(), "Compression Level " + name);
    }

    EXPECT_EQ(ofType(EncoderTypeTrueAudio)->encodingDescription(), "TTA");
    EXPECT_EQ(ofType(EncoderType(42))->encodingDescription(), "");
}

TEST(EncoderSettingsDescription, EncodingTextsByCoreAudioFormat) {
    auto aac = coreAudio(fourCharCode("m4af"), fourCharCode("aac "));
    aac->setBitrate(256000);
    EXPECT_EQ(aac->encodingDescription(), "256.00 kbps");
    aac->setFileType(fourCharCode("mp4f"));
    EXPECT_EQ(aac->encodingDescription(), "256.00 kbps");
    aac->setFileType(fourCharCode("caff"));
    EXPECT_EQ(aac->encodingDescription(), "AAC 256.00 kbps");

    const std::vector<std::pair<const char*, std::string>> fixed = {
        {"aace", "MPEG-4 AAC Enhanced Low Delay"},
        {"aacf", "MPEG-4 AAC Enhanced Low Delay SBR"},
        {"aach", "MPEG-4 High Efficiency AAC"},
        {"aacl", "MPEG-4 AAC Low Delay"},
        {"aacp", "MPEG-4 High Efficiency AAC Version 2"},
        {"alaw", "A-Law 2:1"},
        {"ulaw", "\xCE\xBC-Law 2:1"},
        {"ima4", "IMA 4:1"},
        {"ilbc", "iLBC"},
        {"samr", "AMR Narrowband"},
        {"Qclp", "Qualcomm PureVoice\xE2\x84\xA2"},
        {".mp3", ""}};
    for (const auto& [code, text] : fixed) {
        char c[5] = {code[0], code[1], code[2], code[3], 0};
        EXPECT_EQ(coreAudio(fourCharCode("caff"), fourCharCode(c))->encodingDescription(), text)
            << code;
    }

    EXPECT_EQ(coreAudio(fourCharCode("caff"), fourCharCode("alac"))->encodingDescription(),
              "Apple Lossless");
    EXPECT_EQ(coreAudio(fourCharCode("m4af"), fourCharCode("alac"))->encodingDescription(), "m4a");

    auto lpcm = coreAudio(fourCharCode("AIFF"), fourCharCode("lpcm"));
    EXPECT_EQ(lpcm->encodingDescription(), "LPCM");
    lpcm->setSampleRate(44100);
    EXPECT_EQ(lpcm->encodingDescription(), "LPCM - 44.1kHz");
    lpcm->setBitDepth(16);
    lpcm->setFormatFlags(kAudioFormatFlagIsBigEndian | kAudioFormatFlagIsSignedInteger);
    EXPECT_EQ(lpcm->encodingDescription(), "LPCM - 44.1kHz 16 bit BE");
    lpcm->setSampleRate(0);
    lpcm->setBitDepth(24);
    lpcm->setFormatFlags(kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked);
    EXPECT_EQ(lpcm->encodingDescription(), "LPCM - 24 bit LE");
    lpcm->setSampleRate(22050);
    EXPECT_EQ(lpcm->encodingDescription(), "LPCM - 22.1kHz 24 bit LE");

    // The libsndfile encoder is described by its format ID the same way.
    auto sd2 = ofType(EncoderTypeSndFile);
    sd2->setFileType(kSndFileSD2);
    sd2->setFormatID(fourCharCode("lpcm"));
    sd2->setBitDepth(16);
    sd2->setFormatFlags(kAudioFormatFlagIsBigEndian);
    EXPECT_EQ(sd2->completeDescription(), "Sound Designer II - LPCM - 16 bit BE");
}

TEST(EncoderSettingsDescription, CompleteAndDiagnosticTexts) {
    auto flac = ofType(EncoderTypeFLAC);
    flac->setFlacCompressionLevel(5);
    EXPECT_EQ(flac->completeDescription(), "FLAC - Compression Level 5");

    auto alac = coreAudio(fourCharCode("m4af"), fourCharCode("alac"));
    EXPECT_EQ(alac->completeDescription(), "Apple Lossless - m4a");
    EXPECT_EQ(ofType(EncoderTypeSndFile)->completeDescription(), " - ");

    auto s = fullyPopulated();
    s->setFormatFlags(0xFFFFFFFFu); // prints as a signed number
    EXPECT_EQ(s->description(),
              "\nEnabled: 1\nEncoder Type: 8\nExtension: spx\nBitrate: 24600\nQuality: 8\n"
              "Sample Rate: 32000\nBitrate Method: 1\nChannel Mode: 3\nBit Depth: 24\n"
              "VBR Quality: -4\nFrames Per Packet: 3\nEncoder Action: 1\nFile Type: 1667327590\n"
              "Format ID: 1819304813\nFormat Flags: -1\nFLAC Compress Level: 7\nFLAC Verify: 1\n"
              "MAC Compression Level: 4000\nSpeex Denoise: 1\nSpeex Adaptive Gain Control: 1\n"
              "Speex Voice Activity Detection: 1\nSpeex Discontinuous Transmission: 1\n");
    EXPECT_NE(EncoderSettings().description().find("\nExtension: (null)\n"), std::string::npos);
}

namespace {

// Checks that `base` is a duplicate of its own copy and that changing one
// field on the copy gives the expected answer, from both sides.
void expectDuplicateAfter(const EncoderSettings& base,
                          const std::function<void(EncoderSettings&)>& change, bool expected,
                          const std::string& what) {
    auto other = base.copy();
    EXPECT_TRUE(base.isDuplicateOf(*other)) << what << " (unchanged)";
    change(*other);
    EXPECT_EQ(base.isDuplicateOf(*other), expected) << what;
    EXPECT_EQ(other->isDuplicateOf(base), expected) << what << " (reversed)";
}

} // namespace

TEST(EncoderSettingsDuplicates, EnabledAndActionNeverCount) {
    for (int type = 0; type <= 9; ++type) {
        auto s = ofType(EncoderType(type));
        s->setExtension("x");
        expectDuplicateAfter(
            *s, [](EncoderSettings& o) { o.setEnabled(true); }, true, "enabled");
        expectDuplicateAfter(
            *s, [](EncoderSettings& o) { o.setEncoderAction(EncoderActionUpdateMetadata); }, true,
            "action");
        expectDuplicateAfter(
            *s, [type](EncoderSettings& o) { o.setEncoderType(EncoderType((type + 1) % 10)); },
            false, "type");
    }
}

TEST(EncoderSettingsDuplicates, CodecEncodersCompareTheirOwnFields) {
    auto mp3 = ofType(EncoderTypeMP3);
    mp3->setBitrate(192);
    mp3->setExtension("mp3");
    expectDuplicateAfter(
        *mp3, [](EncoderSettings& o) { o.setBitrate(256); }, false, "mp3 rate");
    expectDuplicateAfter(
        *mp3, [](EncoderSettings& o) { o.setVbrQuality(3); }, true, "mp3 vbrq");
    expectDuplicateAfter(
        *mp3, [](EncoderSettings& o) { o.setQuality(3); }, false, "mp3 quality");
    expectDuplicateAfter(
        *mp3, [](EncoderSettings& o) { o.setChannelMode(3); }, false, "mp3 mode");
    expectDuplicateAfter(
        *mp3, [](EncoderSettings& o) { o.setSampleRate(48000); }, false, "mp3 sample rate");
    expectDuplicateAfter(
        *mp3, [](EncoderSettings& o) { o.setExtension("MP3"); }, true, "mp3 extension");
    expectDuplicateAfter(
        *mp3, [](EncoderSettings& o) { o.setBitDepth(24); }, true, "mp3 depth");

    // The receiving record's method decides which rate field is compared.
    auto vbr = mp3->copy();
    vbr->setBitrateMethod(BitrateMethodVBR);
    vbr->setVbrQuality(2);
    expectDuplicateAfter(
        *vbr, [](EncoderSettings& o) { o.setBitrate(320); }, true, "vbr rate");
    expectDuplicateAfter(
        *vbr, [](EncoderSettings& o) { o.setVbrQuality(4); }, false, "vbr q");

    auto flac = ofType(EncoderTypeFLAC);
    flac->setExtension("flac");
    flac->setFlacCompressionLevel(5);
    expectDuplicateAfter(
        *flac, [](EncoderSettings& o) { o.setExtension("fla"); }, false, "flac extension");
    expectDuplicateAfter(
        *flac, [](EncoderSettings& o) { o.setExtension(std::nullopt); }, false,
        "flac absent extension");
    expectDuplicateAfter(
        *flac, [](EncoderSettings& o) { o.setFlacCompressionLevel(8); }, false, "flac level");
    expectDuplicateAfter(
        *flac, [](EncoderSettings& o) { o.setBitDepth(16); }, false, "flac depth");
    expectDuplicateAfter(
        *flac, [](EncoderSettings& o) { o.setChannelMode(3); }, false, "flac mode");
    expectDuplicateAfter(
        *flac, [](EncoderSettings& o) { o.setFlacVerifyEncoding(true); }, true, "flac verify");
    expectDuplicateAfter(
        *flac, [](EncoderSettings& o) { o.setQuality(9); }, true, "flac quality");

    auto vorbis = ofType(EncoderTypeOggVorbis);
    vorbis->setExtension("ogg");
    vorbis->setBitrate(192000);
    expectDuplicateAfter(
        *vorbis, [](EncoderSettings& o) { o.setSampleRate(22050); }, true, "vorbis sample rate");
    expectDuplicateAfter(
        *vorbis, [](EncoderSettings& o) { o.setBitrate(128000); }, false, "vorbis rate");
    expectDuplicateAfter(
        *vorbis, [](EncoderSettings& o) { o.setBitrateMethod(BitrateMethodABR); }, false,
        "vorbis method");
    expectDuplicateAfter(
        *vorbis, [](EncoderSettings& o) { o.setExtension("oga"); }, false, "vorbis extension");
    expectDuplicateAfter(
        *vorbis, [](EncoderSettings& o) { o.setChannelMode(3); }, true, "vorbis mode");

    auto mac = ofType(EncoderTypeMonkeysAudio);
    mac->setMacCompressionLevel(2000);
    expectDuplicateAfter(
        *mac, [](EncoderSettings& o) { o.setMacCompressionLevel(3000); }, false, "mac level");
    expectDuplicateAfter(
        *mac, [](EncoderSettings& o) { o.setBitDepth(16); }, false, "mac depth");
    expectDuplicateAfter(
        *mac, [](EncoderSettings& o) { o.setExtension("mac"); }, true, "mac extension");

    auto tta = ofType(EncoderTypeTrueAudio);
    expectDuplicateAfter(
        *tta, [](EncoderSettings& o) { o.setSampleRate(96000); }, false, "tta rate");
    expectDuplicateAfter(
        *tta, [](EncoderSettings& o) { o.setChannelMode(3); }, true, "tta mode");

    auto speex = ofType(EncoderTypeOggSpeex);
    speex->setBitrate(24600);
    const std::vector<std::pair<std::string, std::function<void(EncoderSettings&)>>> speexFields = {
        {"sample rate", [](EncoderSettings& o) { o.setSampleRate(8000); }},
        {"quality", [](EncoderSettings& o) { o.setQuality(4); }},
        {"frames", [](EncoderSettings& o) { o.setFramesPerPacket(2); }},
        {"agc", [](EncoderSettings& o) { o.setSpeexAdaptiveGainControl(true); }},
        {"denoise", [](EncoderSettings& o) { o.setSpeexDenoise(true); }},
        {"dtx", [](EncoderSettings& o) { o.setSpeexDiscontinuousTransmission(true); }},
        {"vad", [](EncoderSettings& o) { o.setSpeexVoiceActivityDetection(true); }},
        {"bitrate", [](EncoderSettings& o) { o.setBitrate(8000); }}};
    for (const auto& [name, change] : speexFields)
        expectDuplicateAfter(*speex, change, false, "speex " + name);
    expectDuplicateAfter(
        *speex, [](EncoderSettings& o) { o.setExtension("oga"); }, true, "speex extension");

    auto opus = ofType(EncoderTypeOpus);
    opus->setBitrate(128000);
    opus->setBitrateMethod(BitrateMethodVBR);
    // Opus compares bitrate whatever its method.
    expectDuplicateAfter(
        *opus, [](EncoderSettings& o) { o.setBitrate(96000); }, false, "opus rate");
    expectDuplicateAfter(
        *opus, [](EncoderSettings& o) { o.setVbrQuality(5); }, true, "opus vbrq");
    expectDuplicateAfter(
        *opus, [](EncoderSettings& o) { o.setChannelMode(3); }, false, "opus mode");
    expectDuplicateAfter(
        *opus, [](EncoderSettings& o) { o.setFileType(1); }, false, "opus file type");
    expectDuplicateAfter(
        *opus, [](EncoderSettings& o) { o.setExtension("oga"); }, true, "opus extension");
}

TEST(EncoderSettingsDuplicates, CoreAudioComparesByFormat) {
    auto aace = coreAudio(fourCharCode("m4af"), fourCharCode("aace"));
    aace->setBitrate(64000);
    for (auto change : std::vector<std::function<void(EncoderSettings&)>>{
             [](EncoderSettings& o) { o.setBitrate(128000); },
             [](EncoderSettings& o) { o.setSampleRate(48000); },
             [](EncoderSettings& o) { o.setExtension("mp4"); }})
        expectDuplicateAfter(*aace, change, true, "aace");
    expectDuplicateAfter(
        *aace, [](EncoderSettings& o) { o.setFileType(fourCharCode("mp4f")); }, false,
        "aace container");
    expectDuplicateAfter(
        *aace, [](EncoderSettings& o) { o.setFormatID(fourCharCode("aacf")); }, false,
        "aace format");

    auto aac = coreAudio(fourCharCode("m4af"), fourCharCode("aac "));
    aac->setBitrate(256000);
    aac->setExtension("m4a");
    expectDuplicateAfter(
        *aac, [](EncoderSettings& o) { o.setBitrate(128000); }, false, "aac rate");
    expectDuplicateAfter(
        *aac, [](EncoderSettings& o) { o.setQuality(2); }, false, "aac quality");
    expectDuplicateAfter(
        *aac, [](EncoderSettings& o) { o.setExtension("mp4"); }, true, "aac ext");

    auto lpcm = coreAudio(fourCharCode("AIFF"), fourCharCode("lpcm"));
    lpcm->setExtension("aiff");
    lpcm->setBitDepth(16);
    expectDuplicateAfter(
        *lpcm, [](EncoderSettings& o) { o.setFormatFlags(2); }, false, "lpcm flags");
    expectDuplicateAfter(
        *lpcm, [](EncoderSettings& o) { o.setExtension("aif"); }, false, "lpcm extension");
    expectDuplicateAfter(
        *lpcm, [](EncoderSettings& o) { o.setChannelMode(3); }, false, "lpcm mode");
    expectDuplicateAfter(
        *lpcm, [](EncoderSettings& o) { o.setBitrate(1); }, true, "lpcm rate");

    auto alac = coreAudio(fourCharCode("m4af"), fourCharCode("alac"));
    alac->setExtension("m4a");
    expectDuplicateAfter(
        *alac, [](EncoderSettings& o) { o.setBitDepth(24); }, false, "alac depth");
    expectDuplicateAfter(
        *alac, [](EncoderSettings& o) { o.setFormatFlags(3); }, true, "alac flags");

    auto ima = coreAudio(fourCharCode("caff"), fourCharCode("ima4"));
    expectDuplicateAfter(
        *ima, [](EncoderSettings& o) { o.setBitDepth(24); }, true, "ima depth");
    expectDuplicateAfter(
        *ima, [](EncoderSettings& o) { o.setSampleRate(8000); }, false, "ima rate");

    auto qclp = coreAudio(fourCharCode("caff"), fourCharCode("Qclp"));
    expectDuplicateAfter(
        *qclp, [](EncoderSettings& o) { o.setBitrate(13000); }, false, "qclp rate");
    expectDuplicateAfter(
        *qclp, [](EncoderSettings& o) { o.setSampleRate(8000); }, true, "qclp sample rate");

    auto ilbc = coreAudio(fourCharCode("caff"), fourCharCode("ilbc"));
    ilbc->setBitrateMethod(BitrateMethodVBR);
    expectDuplicateAfter(
        *ilbc, [](EncoderSettings& o) { o.setBitrate(13330); }, false, "ilbc rate");
    expectDuplicateAfter(
        *ilbc, [](EncoderSettings& o) { o.setChannelMode(3); }, true, "ilbc mode");

    auto amr = coreAudio(fourCharCode("3gpp"), fourCharCode("samr"));
    expectDuplicateAfter(
        *amr, [](EncoderSettings& o) { o.setFramesPerPacket(4); }, false, "amr frames");
    expectDuplicateAfter(
        *amr, [](EncoderSettings& o) { o.setExtension("amr"); }, true, "amr extension");

    auto other = coreAudio(fourCharCode("caff"), fourCharCode(".mp3"));
    expectDuplicateAfter(
        *other, [](EncoderSettings& o) { o.setSampleRate(1); }, true, "other");

    auto sd2 = ofType(EncoderTypeSndFile);
    sd2->setFileType(kSndFileSD2);
    sd2->setFormatID(fourCharCode("lpcm"));
    expectDuplicateAfter(
        *sd2, [](EncoderSettings& o) { o.setBitDepth(24); }, false, "sd2 depth");
    expectDuplicateAfter(
        *sd2, [](EncoderSettings& o) { o.setFileType(kSndFileAIFF); }, false, "sd2 container");
}

TEST(EncoderSettingsCopy, CopiesEveryFieldButEncoderSettingAndObservers) {
    auto original = fullyPopulated();
    int calls = 0;
    original->addObserver("encoderSetting", [&](Observable&, const std::string&,
                                                Observable::ChangePhase) { ++calls; });
    auto c = original->copy();
    expectSameFields(*c, *original);
    EXPECT_EQ(original->encoderSetting(), 77);
    EXPECT_EQ(c->encoderSetting(), 0);
    EXPECT_EQ(c->observerCount("encoderSetting"), 0u);
    c->setBitrate(1);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(original->bitrate(), 24600);

    // Absent stays absent in the copy.
    EXPECT_FALSE(EncoderSettings().copy()->extension().has_value());
}

TEST(EncoderSettingsObservation, OutputAffectingSettersAnnounceEncoderSetting) {
    EncoderSettings s;
    std::vector<Observable::ChangePhase> phases;
    std::vector<int64_t> bitrateSeen;
    const auto token = s.addObserver(
        "encoderSetting",
        [&](Observable& object, const std::string& key, Observable::ChangePhase phase) {
            EXPECT_EQ(&object, &s);
            EXPECT_EQ(key, "encoderSetting");
            phases.push_back(phase);
            bitrateSeen.push_back(s.bitrate());
        },
        true);
    int otherKeyCalls = 0;
    s.addObserver("bitrate", [&](Observable&, const std::string&, Observable::ChangePhase) {
        ++otherKeyCalls;
    });

    // Before the store the observer sees the old value, after it the new.
    s.setBitrate(320);
    ASSERT_EQ(phases.size(), 2u);
    EXPECT_EQ(phases[0], Observable::ChangePhase::WillChange);
    EXPECT_EQ(phases[1], Observable::ChangePhase::DidChange);
    EXPECT_EQ(bitrateSeen, (std::vector<int64_t>{0, 320}));
    EXPECT_EQ(otherKeyCalls, 0);

    const std::vector<std::pair<std::string, std::function<void()>>> announcing = {
        {"encoderType", [&] { s.setEncoderType(EncoderTypeFLAC); }},
        {"extension", [&] { s.setExtension("flac"); }},
        {"bitrate", [&] { s.setBitrate(1); }},
        {"quality", [&] { s.setQuality(1); }},
        {"sampleRate", [&] { s.setSampleRate(1); }},
        {"bitrateMethod", [&] { s.setBitrateMethod(BitrateMethodVBR); }},
        {"channelMode", [&] { s.setChannelMode(1); }},
        {"bitDepth", [&] { s.setBitDepth(1); }},
        {"vbrQuality", [&] { s.setVbrQuality(1); }},
        {"fileType", [&] { s.setFileType(1); }},
        {"formatID", [&] { s.setFormatID(1); }},
        {"formatFlags", [&] { s.setFormatFlags(1); }},
        {"framesPerPacket", [&] { s.setFramesPerPacket(1); }},
        {"flacCompressionLevel", [&] { s.setFlacCompressionLevel(1); }},
        {"flacVerifyEncoding", [&] { s.setFlacVerifyEncoding(true); }},
        {"macCompressionLevel", [&] { s.setMacCompressionLevel(1); }},
        // Storing the same value again still announces.
        {"same value", [&] { s.setMacCompressionLevel(1); }}};
    for (const auto& [name, set] : announcing) {
        phases.clear();
        set();
        EXPECT_EQ(phases.size(), 2u) << name;
    }

    const std::vector<std::pair<std::string, std::function<void()>>> silent = {
        {"enabled", [&] { s.setEnabled(true); }},
        {"encoderAction", [&] { s.setEncoderAction(EncoderActionUpdateMetadata); }},
        {"encoderSetting", [&] { s.setEncoderSetting(9); }},
        {"speexDenoise", [&] { s.setSpeexDenoise(true); }},
        {"speexAdaptiveGainControl", [&] { s.setSpeexAdaptiveGainControl(true); }},
        {"speexVoiceActivityDetection", [&] { s.setSpeexVoiceActivityDetection(true); }},
        {"speexDiscontinuousTransmission", [&] { s.setSpeexDiscontinuousTransmission(true); }}};
    for (const auto& [name, set] : silent) {
        phases.clear();
        set();
        EXPECT_TRUE(phases.empty()) << name;
    }

    s.removeObserver(token);
    phases.clear();
    s.setBitrate(2);
    EXPECT_TRUE(phases.empty());
}

TEST(EncoderSettingsObservation, ObserverWithoutPriorHearsOnlyAfterTheStore) {
    EncoderSettings s;
    std::vector<std::string> seen;
    s.addObserver("encoderSetting",
                  [&](Observable&, const std::string&, Observable::ChangePhase phase) {
                      EXPECT_EQ(phase, Observable::ChangePhase::DidChange);
                      seen.push_back(s.extension().value_or("(absent)"));
                  });
    s.setExtension("aiff");
    s.setExtension(std::nullopt);
    EXPECT_EQ(seen, (std::vector<std::string>{"aiff", "(absent)"}));
}
