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

TEST_F(Pipe, WordsComeOutInOrderAndTheCountFollowsTheMessageSize) {
    EXPECT_EQ(qorOsOpen(name.c_str(), QOR_O_RDWR, 0), ERROR) << "a pipe must exist to open";
    ASSERT_EQ(pipeDevCreate(name.c_str(), 16, 4), OK);
    EXPECT_EQ(pipeDevCreate(name.c_str(), 16, 4), ERROR) << "names are unique";
    EXPECT_EQ(qorIoctl(-5, FIONMSGS, 0), ERROR);
    const int fd = qorOsOpen(name.c_str(), QOR_O_RDWR, 0);
    const int r = qorOsOpen(name.c_str(), QOR_O_RDONLY, 0), w = qorOsOpen(name.c_str(), QOR_O_WRONLY, 0);
    ASSERT_TRUE(fd >= 0 && r >= 0 && w >= 0);
    for (uint32_t v = 1; v <= 3; ++v) ASSERT_EQ(write(v == 2 ? w : fd, &v, 4), 4);
    EXPECT_EQ(waiting(fd), 3);
    for (uint32_t v = 1; v <= 3; ++v) {
        uint32_t got = 0;
        ASSERT_EQ(read(v == 2 ? r : fd, &got, 4), 4);
        EXPECT_EQ(got, v);
    }
    uint64_t two[2] = {1, 2};
    ASSERT_EQ(write(fd, two, 16), 16);
    EXPECT_EQ(waiting(fd), 4);
    ASSERT_EQ(qorIoctl(fd, FIOSMSGS, 8), OK);
    EXPECT_EQ(waiting(fd), 2);
    EXPECT_EQ(qorIoctl(fd, FIOSMSGS, 0), ERROR);
}

TEST_F(Pipe, HoldsTheDaemonsTimerBacklogWithoutBlocking) {
    // The timer pipe must hold 65536 words; a write beyond fails, never blocks.
    ASSERT_EQ(pipeDevCreate(name.c_str(), 65536, 4), OK);
    const int fd = qorOsOpen(name.c_str(), QOR_O_RDWR, 0);
    ASSERT_GE(fd, 0);
    uint32_t w = 7;
    int written = 0;
    while (write(fd, &w, 4) == 4) ++written;
    EXPECT_GE(written, 65536);
    EXPECT_EQ(waiting(fd), written) << "the writer must see the backlog";
}

}  // namespace
