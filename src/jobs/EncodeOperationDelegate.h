#pragma once
// What an encode operation needs of the batch that runs it. The controller
// implements it; tests implement it with a small stand-in.

#include <string>

namespace velvox {

class EncodeOperation;
class TaggingThread;

class EncodeOperationDelegate {
public:
    virtual ~EncodeOperationDelegate() = default;
    // The output paths made in this batch; asked and changed on the main thread.
    virtual bool createdOutputPathsContains(const std::string& path) = 0;
    virtual void addCreatedOutputPath(const std::string& path) = 0;
    // The one thread on which tags are read and written.
    virtual TaggingThread& taggingThread() = 0;
};

} // namespace velvox
