#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/CoreAudioTypes.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "support/TestSupport.h"

using namespace velvox;

TEST(StringFormat, ObjectPlaceholdersTakeStringsAndPaths) {
    EXPECT_EQ(stringWithFormat("Encoding %@ - %0.1f%%", std::string("FLAC"), 42.25),
              "Encoding FLAC - 42.2%");
    EXPECT_EQ(stringWithFormat("%@/%@-%.8x", std::filesystem::path("/tmp"), "Velvox", 0x1Fu),
              "/tmp/Velvox-0000001f");
    EXPECT_EQ(stringWithFormat("Failed To Encode %ld of %ld Files.", 2L, 10L),
              "Failed To Encode 2 of 10 Files.");
    EXPECT_EQ(fourCharCodeString(int32_t(fourCharCode("fmt?"))), "fmt?");
    EXPECT_EQ(fourCharCodeString(-50), "-50");
}

TEST(Exception, AssertionCarriesNameReasonAndPlace) {
    try {
        const int size = 0;
        VLX_PARAMETER_ASSERT(0 < size);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(e.reason(), "Invalid parameter not satisfying: 0 < size");
        EXPECT_EQ(e.description(), e.reason());
        EXPECT_EQ(e.file(), "ErrorLogAndFormatTest");
        EXPECT_NE(e.function().find("TestBody"), std::string::npos);
    }
}

TEST(ErrorLog, KeepsLinesFromManyThreadsAndSavesThemWithDates) {
    ErrorLog& log = ErrorLog::sharedController();
    const size_t mark = log.count();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t, &log] {
            for (int i = 0; i < 100; ++i)
                log.logMessage("thread " + std::to_string(t) + " line " + std::to_string(i));
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(log.count(), mark + 800);

    test::TempDir dir;
    ASSERT_TRUE(log.saveToFile(dir.file("log.txt")));
    const auto bytes = test::readFile(dir.file("log.txt"));
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_NE(text.find(": thread 7 line 99\n"), std::string::npos);
    // "YYYY-MM-DD HH:MM:SS: message"
    EXPECT_EQ(text[4], '-');
    EXPECT_EQ(text[19], ':');
    EXPECT_FALSE(log.saveToFile(dir.file("no/such/folder/log.txt")));
}
