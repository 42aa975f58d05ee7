// That what changes hands by its pages is what a copy would have brought, wherever it lies and whatever the kernel
// says.
#include <gtest/gtest.h>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

#include "linux/huge_pages.h"
#include "linux/page_exchange.h"

using namespace vornix::platform;

namespace {

constexpr size_t length = 2 * hugePage;

struct Free {
    void operator()(uint8_t* block) const { std::free(block); }
};
using Block = std::unique_ptr<uint8_t, Free>;

uint8_t Pattern(uint8_t seed, size_t index) {
    return static_cast<uint8_t>(seed + index * 31 + index / 4096);
}

// A block of `size` bytes that differ from those of another seed at each place.
Block MakeBlock(size_t size, uint8_t seed) {
    int code = 0;
    Block block(static_cast<uint8_t*>(AllocateBlock(size, hugePage, code)));
    for (size_t i = 0; i < size; i++) {
        block.get()[i] = Pattern(seed, i);
    }
    return block;
}

bool Holds(const uint8_t* memory, size_t from, size_t to, uint8_t seed) {
    for (size_t i = from; i < to; i++) {
        if (memory[i] != Pattern(seed, i)) {
            return false;
        }
    }
    return true;
}

class LinuxPageExchange : public testing::Test {
protected:
    const Block memory_ = MakeBlock(length + hugePage, 1);
    const Block block_ = MakeBlock(length + hugePage, 2);
    PageExchange exchange_;
};

TEST_F(LinuxPageExchange, WholeLargePagesChangePlacesAndNothingBesideThem) {
    exchange_.Take(memory_.get(), block_.get(), length);
    EXPECT_TRUE(Holds(memory_.get(), 0, length, 2));
    EXPECT_TRUE(Holds(memory_.get(), length, length + hugePage, 1)) << "behind it";
    EXPECT_TRUE(Holds(block_.get(), length, length + hugePage, 2)) << "behind the block";
    EXPECT_TRUE(Holds(block_.get(), 0, length, 1)) << "copied, where this kernel can do better";
    exchange_.Take(memory_.get(), block_.get(), length);
    EXPECT_TRUE(Holds(block_.get(), 0, length, 2)) << "copied the second time";
}

TEST_F(LinuxPageExchange, PlaceWhereTheOnesPagesWaitIsGivenBack) {
    const auto mapped = [] {
        size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages * 4096;
    };
    const size_t before = mapped();
    for (int time = 0; time < 20; time++) {
        PageExchange exchange;
        exchange.Take(memory_.get(), block_.get(), hugePage);
        exchange.Take(memory_.get(), block_.get(), length);
    }
    EXPECT_LT(mapped(), before + 8 * hugePage);
    EXPECT_NE(msync(nullptr, hugePage, MS_ASYNC), 0) << "at the address of nothing, which root may use";
}

TEST_F(LinuxPageExchange, PagesGoBackAndForthAndStayTheOwnersOwn) {
    for (uint8_t seed = 3; seed < 40; seed++) {
        const size_t taken = seed % 3 == 0 ? hugePage : length;
        for (size_t i = 0; i < length; i++) {
            block_.get()[i] = Pattern(seed, i);
        }
        exchange_.Take(memory_.get(), block_.get(), taken);
        ASSERT_TRUE(Holds(memory_.get(), 0, taken, seed));
        std::memset(block_.get(), 0, length);
        ASSERT_TRUE(Holds(memory_.get(), 0, taken, seed)) << "shares pages with the block";
    }
}

TEST_F(LinuxPageExchange, WhatIsNotInWholeLargePagesIsCopied) {
    exchange_.Take(memory_.get() + 4096, block_.get(), hugePage);
    EXPECT_EQ(std::memcmp(memory_.get() + 4096, block_.get(), hugePage), 0);
    EXPECT_TRUE(Holds(memory_.get(), 0, 4096, 1));
    EXPECT_TRUE(Holds(block_.get(), 0, length, 2));
    exchange_.Take(memory_.get(), block_.get(), hugePage + 1);
    EXPECT_TRUE(Holds(memory_.get(), 0, hugePage + 1, 2));
    EXPECT_EQ(memory_.get()[hugePage + 1], block_.get()[hugePage + 1 - 4096]);
    EXPECT_TRUE(Holds(block_.get(), 0, length, 2));
}

// From now on the kernel refuses this process to move pages to `target`; to anywhere, where that is null.
void RefuseMovesTo(const uint8_t* target) {
    const auto address = reinterpret_cast<uintptr_t>(target);
    const auto argument = offsetof(seccomp_data, args) + 4 * sizeof(uint64_t);
    const auto word = [](size_t offset) {
        return sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
    };
    const auto unless = [](uint64_t value, int otherwise) {
        return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(value), 0,
                                    static_cast<uint8_t>(otherwise));
    };
    const auto end = [](uint32_t verdict) { return sock_filter BPF_STMT(BPF_RET | BPF_K, verdict); };
    std::vector<sock_filter> filter = {word(offsetof(seccomp_data, nr)), unless(SYS_mremap, target == nullptr ? 1 : 5)};
    if (target != nullptr) {
        filter.insert(filter.end(),
                      {word(argument), unless(address & 0xFFFFFFFF, 3), word(argument + 4), unless(address >> 32, 1)});
    }
    filter.insert(filter.end(), {end(SECCOMP_RET_ERRNO | ENOMEM), end(SECCOMP_RET_ALLOW)});
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        std::_Exit(2);
    }
}

using LinuxPageExchangeDeathTest = LinuxPageExchange;

// Each in a process of its own: what the kernel refuses once is not asked for again.
TEST_F(LinuxPageExchangeDeathTest, WhereverTheKernelRefusesTheBytesAreThere) {
    const auto takeRefused = [&](const uint8_t* target) {
        RefuseMovesTo(target);
        exchange_.Take(memory_.get(), block_.get(), length);
        bool isRight = Holds(memory_.get(), 0, length, 2);
        if (target != block_.get()) {
            isRight = isRight && Holds(block_.get(), 0, length, 2); // a copy leaves the block as it is
        }
        std::memset(block_.get(), 9, length);
        exchange_.Take(memory_.get(), block_.get(), length);
        isRight = isRight && std::count(memory_.get(), memory_.get() + length, 9) == ptrdiff_t{length};
        std::_Exit(isRight && Holds(memory_.get(), length, length + hugePage, 1) ? 0 : 1);
    };
    EXPECT_EXIT(takeRefused(nullptr), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(takeRefused(memory_.get()), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(takeRefused(block_.get()), testing::ExitedWithCode(0), "");
}

TEST_F(LinuxPageExchangeDeathTest, WithoutRoomForAThirdPlaceTheBytesAreCopied) {
    const auto take = [&] {
        rlimit none{0, RLIM_INFINITY};
        if (setrlimit(RLIMIT_AS, &none) != 0) {
            std::_Exit(2);
        }
        exchange_.Take(memory_.get(), block_.get(), length);
        std::_Exit(Holds(memory_.get(), 0, length, 2) && Holds(block_.get(), 0, length, 2) ? 0 : 1);
    };
    EXPECT_EXIT(take(), testing::ExitedWithCode(0), "");
}

} // namespace
