#pragma once
// How an output format is written on the command line:
//
//     TYPE[:key=value[,key=value]...]
//
// for example "flac:level=8", "mp3:method=cbr,bitrate=320",
// "coreaudio:fileType=WAVE,bits=24" or "opus:bitrate=96k".
//
// TYPE is the FORMAT word of an encoder in the format registry ("flac",
// "mp3", ...) or of one of its presets ("wav"). The keys are that encoder's
// settings schema: a short word ("level", "rate", "bits") or the key under
// which the value is stored ("flacCompressionLevel"). Keys and types are
// matched without regard to case. Every key left out takes the schema's
// default, so "flac" alone is a complete format.
//
// Values are checked against what the encoder of the type can take: a value
// it would refuse or silently misread is a usage error here, before a batch
// starts, rather than a failed encode later.

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace velvox {

class EncoderSettings;

class OutputFormatArgument {
public:
    // A FORMAT that cannot be understood; what() names the part at fault
    // ("unknown output type 'mp4'", "unknown key 'lvl' in 'flac:lvl=5'",
    // "bad value 'x' for 'level'").
    class UsageError : public std::invalid_argument {
    public:
        using std::invalid_argument::invalid_argument;
    };

    // The settings the format text describes, enabled, with the defaults of its type
    // for every key it leaves out. Throws UsageError.
    static std::unique_ptr<EncoderSettings> parse(const std::string& text);

    // The TYPE words of this build, in registry order.
    static std::vector<std::string> typeNames();

    // A few lines for --help texts: the syntax, the types and the aliases.
    static std::string syntaxHelp();
};

} // namespace velvox
