// Named message pipes: what the timer task (writer) and the daemon's loop
// (reader) see through one descriptor.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "qor/pipe.h"
#include "qor/task.h"

namespace {

class Pipe : public ::testing::Test {
protected:
    std::string name = "/qor/pipe/test-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name());
    void TearDown() override { pipeDevDelete(name.c_str()); }
    int waiting(int fd) {
        int n = -1;
        EXPECT_EQ(qorIoctl(fd, FIONMSGS, reinterpret_cast<long>(&n)), OK);
        return n;
    }
};

TEST_F(Pipe, OneDescriptorWritesAndReadsWordsInOrder) {
    ASSERT_EQ(pipeDevCreate(name.c_str(), 16, 4), OK);
    const int fd = qorOsOpen(name.c_str(), QOR_O_RDWR, 0);
    ASSERT_GE(fd, 0);
    for (uint32_t w = 1; w <= 3; ++w) ASSERT_EQ(write(fd, &w, 4), 4);
    EXPECT_EQ(waiting(fd), 3);
    for (uint32_t w = 1; w <= 3; ++w) {
        uint32_t got = 0;
        ASSERT_EQ(read(fd, &got, 4), 4);
        EXPECT_EQ(got, w);
    }
    EXPECT_EQ(waiting(fd), 0);
}

TEST_F(Pipe, HoldsTheDaemonsTimerBacklogWithoutBlocking) {
    // The timer pipe must hold 65536 words; a write beyond fails, never blocks.
    ASSERT_EQ(pipeDevCreate(name.c_str(), 65536, 4), OK);
    const int fd = qorOsOpen(name.c_str(), QOR_O_RDWR, 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(qorIoctl(fd, FIOSMSGS, 4), OK);
    uint32_t w = 7;
    int written = 0;
    while (write(fd, &w, 4) == 4) ++written;
    EXPECT_GE(written, 65536);
    EXPECT_EQ(waiting(fd), written) << "the writer must see the backlog";
}

TEST_F(Pipe, MessageSizeChangesTheCount) {
    ASSERT_EQ(pipeDevCreate(name.c_str(), 16, 4), OK);
    const int fd = qorOsOpen(name.c_str(), QOR_O_RDWR, 0);
    uint64_t two[2] = {1, 2};
    ASSERT_EQ(write(fd, two, 16), 16);
    EXPECT_EQ(waiting(fd), 4);
    ASSERT_EQ(qorIoctl(fd, FIOSMSGS, 8), OK);
    EXPECT_EQ(waiting(fd), 2);
    EXPECT_EQ(qorIoctl(fd, FIOSMSGS, 0), ERROR);
}

TEST_F(Pipe, NamesAreUniqueAndMustExistToOpen) {
    EXPECT_EQ(qorOsOpen(name.c_str(), QOR_O_RDWR, 0), ERROR);
    ASSERT_EQ(pipeDevCreate(name.c_str(), 4, 4), OK);
    EXPECT_EQ(pipeDevCreate(name.c_str(), 4, 4), ERROR);
    EXPECT_EQ(qorIoctl(-5, FIONMSGS, 0), ERROR);
    const int r = qorOsOpen(name.c_str(), QOR_O_RDONLY, 0);
    const int w = qorOsOpen(name.c_str(), QOR_O_WRONLY, 0);
    ASSERT_GE(r, 0);
    ASSERT_GE(w, 0);
    uint32_t v = 42, got = 0;
    ASSERT_EQ(write(w, &v, 4), 4);
    ASSERT_EQ(read(r, &got, 4), 4);
    EXPECT_EQ(got, 42u);
}

}  // namespace
