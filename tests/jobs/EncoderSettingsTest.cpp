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

namespace {} // namespace
