#pragma once
// One output format the user has configured: the encoder, its container and
// extension, and the encoder's parameters. The user's list of formats is kept
// in the defaults as a list of settingsDictionary() objects.
//
// Every setter that changes what the output file would be announces a change
// of the one key "encoderSetting" (before and after the store), so that a
// single observer learns of every such edit. Switches that do not alter the
// output format (enabled, encoderAction, the Speex preprocessor switches) and
// encoderSetting itself are stored silently.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "jobs/EncoderType.h"
#include "platform/Observable.h"

namespace velvox {

class EncoderSettings : public Observable {
public:
    static constexpr const char* kEncoderSettingKey = "encoderSetting";

    // A record with every field zero, NO or absent.
    EncoderSettings() = default;

    static std::unique_ptr<EncoderSettings>
    settingsWithDictionary(const nlohmann::json& dictionary);

    // Reads every stored key; a missing key gives 0, NO or an absent
    // extension. Numbers are taken as 32-bit integers. encoderSetting is 0.
    void initWithDictionary(const nlohmann::json& dictionary);
    // Every key, booleans as booleans and every other number as a 32-bit
    // integer (the 64-bit fields are truncated). An absent extension is left
    // out.
    nlohmann::json settingsDictionary() const;
    // A new record with every field but encoderSetting; observers are not
    // carried over.
    std::unique_ptr<EncoderSettings> copy() const;

    std::string outputFormatDescription() const;
    std::string encodingDescription() const;
    std::string completeDescription() const;
    std::string description() const;
    // Whether both records would produce the same output. enabled and
    // encoderAction never count.
    bool isDuplicateOf(const EncoderSettings& other) const;

    bool enabled() const { return enabled_; }
    void setEnabled(bool value) { enabled_ = value; }
    int64_t encoderSetting() const { return encoderSetting_; }
    void setEncoderSetting(int64_t value) { encoderSetting_ = value; }
    EncoderType encoderType() const { return encoderType_; }
    void setEncoderType(EncoderType value);
    const std::optional<std::string>& extension() const { return extension_; }
    void setExtension(std::optional<std::string> value);
    int64_t bitrate() const { return bitrate_; }
    void setBitrate(int64_t value);
    int64_t quality() const { return quality_; }
    void setQuality(int64_t value);
    int64_t sampleRate() const { return sampleRate_; }
    void setSampleRate(int64_t value);
    BitrateMethod bitrateMethod() const { return bitrateMethod_; }
    void setBitrateMethod(BitrateMethod value);
    int32_t channelMode() const { return channelMode_; }
    void setChannelMode(int32_t value);
    uint32_t bitDepth() const { return bitDepth_; }
    void setBitDepth(uint32_t value);
    int64_t vbrQuality() const { return vbrQuality_; }
    void setVbrQuality(int64_t value);
    uint32_t framesPerPacket() const { return framesPerPacket_; }
    void setFramesPerPacket(uint32_t value);
    EncoderAction encoderAction() const { return encoderAction_; }
    void setEncoderAction(EncoderAction value) { encoderAction_ = value; }
    uint32_t fileType() const { return fileType_; }
    void setFileType(uint32_t value);
    uint32_t formatID() const { return formatID_; }
    void setFormatID(uint32_t value);
    uint32_t formatFlags() const { return formatFlags_; }
    void setFormatFlags(uint32_t value);
    uint32_t flacCompressionLevel() const { return flacCompressionLevel_; }
    void setFlacCompressionLevel(uint32_t value);
    bool flacVerifyEncoding() const { return flacVerifyEncoding_; }
    void setFlacVerifyEncoding(bool value);
    int32_t macCompressionLevel() const { return macCompressionLevel_; }
    void setMacCompressionLevel(int32_t value);
    bool speexDenoise() const { return speexDenoise_; }
    void setSpeexDenoise(bool value) { speexDenoise_ = value; }
    bool speexAdaptiveGainControl() const { return speexAdaptiveGainControl_; }
    void setSpeexAdaptiveGainControl(bool value) { speexAdaptiveGainControl_ = value; }
    bool speexVoiceActivityDetection() const { return speexVoiceActivityDetection_; }
    void setSpeexVoiceActivityDetection(bool value) { speexVoiceActivityDetection_ = value; }
    bool speexDiscontinuousTransmission() const { return speexDiscontinuousTransmission_; }
    void setSpeexDiscontinuousTransmission(bool value) { speexDiscontinuousTransmission_ = value; }

private:
    friend struct EncoderSettingsRules;

    template <typename T, typename V>
    void storeAnnounced(T& field, V&& value);

    bool commonRateTestWith(const EncoderSettings& other) const;
    bool commonTailWith(const EncoderSettings& other) const;
    bool formatTestWith(const EncoderSettings& other) const;
    // The rate field that counts for this record's method: vbrQuality for
    // VBR, bitrate otherwise.
    bool sameRateAs(const EncoderSettings& other) const;

    bool enabled_ = false;
    int64_t encoderSetting_ = 0;
    EncoderType encoderType_ = EncoderTypeMP3;
    std::optional<std::string> extension_;
    int64_t bitrate_ = 0;
    int64_t quality_ = 0;
    int64_t sampleRate_ = 0;
    BitrateMethod bitrateMethod_ = BitrateMethodCBR;
    int32_t channelMode_ = 0;
    uint32_t bitDepth_ = 0;
    int64_t vbrQuality_ = 0;
    uint32_t framesPerPacket_ = 0;
    EncoderAction encoderAction_ = EncoderActionEncode;
    uint32_t fileType_ = 0;
    uint32_t formatID_ = 0;
    uint32_t formatFlags_ = 0;
    uint32_t flacCompressionLevel_ = 0;
    bool flacVerifyEncoding_ = false;
    int32_t macCompressionLevel_ = 0;
    bool speexDenoise_ = false;
    bool speexAdaptiveGainControl_ = false;
    bool speexVoiceActivityDetection_ = false;
    bool speexDiscontinuousTransmission_ = false;
};

} // namespace velvox
