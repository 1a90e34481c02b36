#pragma once
// What a file job needs of the batch that runs it: everything an encode
// operation needs, plus the output formats and the place to ask the user
// whether an existing output may be overwritten.

#include <memory>
#include <vector>

#include "jobs/EncodeOperationDelegate.h"

namespace velvox {

class EncoderSettings;

class FileEncodeOperationDelegate : public EncodeOperationDelegate {
public:
    // The output formats in list order; asked on the main thread.
    virtual std::vector<std::shared_ptr<EncoderSettings>> encoderSettings() = 0;
    // An operation stopped to ask about its existing output; called on the
    // main thread.
    virtual void waitingUserInputDidChange(const std::shared_ptr<EncodeOperation>& operation) = 0;
};

} // namespace velvox
