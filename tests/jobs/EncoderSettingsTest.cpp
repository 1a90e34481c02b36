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
