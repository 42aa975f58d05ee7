// ChunkKey as an owner: who releases provider, key and buffer, when, in which order, and how often.
#include "crypto/chunk_key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <optional>
#include <type_traits>
#include <utility>

#include "image/open_image.h"
#include "observed_calls.h"

namespace vornix {
namespace {

using observed::Call;
using observed::Observation;

std::array<uint8_t, 32> MakeKeyBytes(uint8_t first) {
    std::array<uint8_t, 32> bytes;
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

ChunkKey MakeKey(uint8_t first) {
    return ChunkKey(MakeKeyBytes(first).data());
}

constexpr std::array<uint8_t, 12> nonce = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

// What a key makes of a fixed message, its tag behind it: two keys that agree in it are the same.
std::array<uint8_t, 40> SealSample(const ChunkKey& key) {
    constexpr std::array<uint8_t, 24> plain = {'a', ' ', 'f', 'i', 'x', 'e', 'd'};
    std::array<uint8_t, 40> sealed;
    SealChunk(key, plain.data(), plain.size(), nonce.data(), sealed.data(), sealed.data() + plain.size());
    return sealed;
}

// The calls that release one key, in their order, with the objects that its making gave.
std::vector<Call> ReleaseOf(const void* key, const void* provider, const void* buffer) {
    return {{"BCryptDestroyKey", key}, {"BCryptCloseAlgorithmProvider", provider}, {"operator delete", buffer}};
}

static_assert(!std::is_copy_constructible_v<ChunkKey>);
static_assert(!std::is_copy_assignable_v<ChunkKey>);
static_assert(std::is_nothrow_move_constructible_v<ChunkKey>);
static_assert(std::is_nothrow_move_assignable_v<ChunkKey>);

TEST(ChunkKey, ReleasesKeyThenProviderThenBuffer) {
    Observation observation;
    const void* provider = nullptr;
    const void* handle = nullptr;
    {
        const ChunkKey key = MakeKey(1);
        ASSERT_EQ(observation.Names(),
                  (std::vector<std::string>{"BCryptOpenAlgorithmProvider", "BCryptGenerateSymmetricKey"}));
        provider = observation.Calls[0].Object;
        handle = observation.Calls[1].Object;
        EXPECT_EQ(key.Handle(), handle);
        ASSERT_NE(observation.KeyObject, nullptr);
        observation.Calls.clear();
    }
    EXPECT_EQ(observation.Calls, ReleaseOf(handle, provider, observation.KeyObject));
}

TEST(ChunkKey, KeepsNoPointerToTheBytesItWasMadeFrom) {
    std::array<uint8_t, 32> bytes = MakeKeyBytes(7);
    const ChunkKey key(bytes.data());
    const auto sealed = SealSample(key);
    bytes.fill(0);
    EXPECT_EQ(SealSample(key), sealed);
    EXPECT_EQ(SealSample(MakeKey(7)), sealed);
    EXPECT_NE(SealSample(MakeKey(8)), sealed);
}

TEST(ChunkKey, IsHandedOverByAMoveAndReleasedOnce) {
    const auto sealed = SealSample(MakeKey(1));
    Observation observation;
    std::optional<ChunkKey> first(MakeKeyBytes(1).data());
    const std::vector<Call> made = observation.Calls;
    observation.Calls.clear();

    std::optional<ChunkKey> second(std::move(*first));
    EXPECT_EQ(first->Handle(), nullptr);
    EXPECT_EQ(second->Handle(), made[1].Object);
    EXPECT_EQ(observation.Names(), std::vector<std::string>{}) << "a move makes and releases nothing";
    EXPECT_EQ(SealSample(*second), sealed);

    first.reset();
    EXPECT_EQ(observation.Names(), std::vector<std::string>{}) << "one that was moved from closes nothing";
    EXPECT_EQ(SealSample(*second), sealed) << "the buffer still backs the key";

    second.reset();
    EXPECT_EQ(observation.Calls, ReleaseOf(made[1].Object, made[0].Object, observation.KeyObject));
}

TEST(ChunkKey, ReleasesWhatItHeldBeforeItTakesOver) {
    const auto sealed = SealSample(MakeKey(2));
    Observation observation;
    std::optional<ChunkKey> target(MakeKeyBytes(1).data());
    const std::vector<Call> former = observation.Calls;
    const void* const formerBuffer = observation.KeyObject;
    ChunkKey source = MakeKey(2);
    const std::vector<Call> both = observation.Calls;
    const void* const buffer = observation.KeyObject;
    observation.Calls.clear();

    *target = std::move(source);
    EXPECT_EQ(observation.Calls, ReleaseOf(former[1].Object, former[0].Object, formerBuffer));
    EXPECT_EQ(source.Handle(), nullptr);
    EXPECT_EQ(target->Handle(), both[3].Object);
    EXPECT_EQ(SealSample(*target), sealed);

    observation.Calls.clear();
    target.reset();
    EXPECT_EQ(observation.Calls, ReleaseOf(both[3].Object, both[2].Object, buffer));
}

TEST(ChunkKey, SurvivesAnAssignmentToItself) {
    ChunkKey key = MakeKey(1);
    const auto sealed = SealSample(key);
    const void* const handle = key.Handle();
    Observation observation;
    ChunkKey& itself = key;
    key = std::move(itself);
    EXPECT_EQ(observation.Names(), std::vector<std::string>{});
    ASSERT_EQ(key.Handle(), handle);
    EXPECT_EQ(SealSample(key), sealed);
}

TEST(ChunkKey, BecomesEmptyByAnAssignmentFromAnEmptyOne) {
    Observation observation;
    ChunkKey key = MakeKey(1);
    const std::vector<Call> made = observation.Calls;
    const void* const buffer = observation.KeyObject;
    ChunkKey empty = MakeKey(2);
    const ChunkKey elsewhere = std::move(empty);
    observation.Calls.clear();

    key = std::move(empty);
    EXPECT_EQ(observation.Calls, ReleaseOf(made[1].Object, made[0].Object, buffer));
    EXPECT_EQ(key.Handle(), nullptr);
}

TEST(ChunkKey, TakesOverIntoOneThatWasMovedFrom) {
    const auto sealed = SealSample(MakeKey(2));
    ChunkKey hollow = MakeKey(1);
    const ChunkKey elsewhere = std::move(hollow);
    ChunkKey source = MakeKey(2);
    Observation observation;
    hollow = std::move(source);
    EXPECT_EQ(observation.Names(), std::vector<std::string>{});
    EXPECT_EQ(SealSample(hollow), sealed);
}

TEST(ChunkKey, IsReleasedOnceWhereTheImageThatCameToHoldItIsReplaced) {
    static_assert(!std::is_copy_constructible_v<OpenImage>);
    static_assert(std::is_nothrow_move_constructible_v<OpenImage>);
    Observation observation;
    OpenImage first;
    first.Key = std::make_unique<ChunkKey>(MakeKeyBytes(1).data());
    const std::vector<Call> made = observation.Calls;
    OpenImage second(std::move(first));
    OpenImage third;
    third = std::move(second);
    EXPECT_EQ(first.Key, nullptr);
    EXPECT_EQ(second.Key, nullptr);
    EXPECT_EQ(observation.Calls, made);
    observation.Calls.clear();
    third = OpenImage();
    EXPECT_EQ(third.Key, nullptr);
    EXPECT_EQ(observation.Calls, ReleaseOf(made[1].Object, made[0].Object, observation.KeyObject));
}

TEST(ChunkSealing, OpensWhatWasSealedAndNothingElse) {
    const ChunkKey key = MakeKey(3);
    const std::array<uint8_t, 5> plain = {'p', 'l', 'a', 'i', 'n'};
    std::array<uint8_t, 5> sealed{};
    std::array<uint8_t, 16> tag{};
    SealChunk(key, plain.data(), plain.size(), nonce.data(), sealed.data(), tag.data());
    EXPECT_NE(sealed, plain);

    std::array<uint8_t, 5> opened{};
    const auto opens = [&](const ChunkKey& with, const auto& content, const auto& itsNonce, const auto& itsTag,
                           uint32_t length = 5) {
        return UnsealChunk(with, content.data(), length, itsNonce.data(), itsTag.data(), opened.data());
    };
    EXPECT_TRUE(opens(key, sealed, nonce, tag));
    EXPECT_EQ(opened, plain);

    EXPECT_FALSE(opens(MakeKey(4), sealed, nonce, tag));
    EXPECT_FALSE(opens(key, sealed, nonce, tag, 4));
    for (size_t bit = 0; bit < 8; ++bit) {
        const auto flip = static_cast<uint8_t>(1u << bit);
        auto damaged = sealed;
        damaged[bit % damaged.size()] ^= flip;
        EXPECT_FALSE(opens(key, damaged, nonce, tag));
        auto otherTag = tag;
        otherTag[15 - bit] ^= flip;
        EXPECT_FALSE(opens(key, sealed, nonce, otherTag));
        auto otherNonce = nonce;
        otherNonce[11 - bit] ^= flip;
        EXPECT_FALSE(opens(key, sealed, otherNonce, tag));
    }
    // The key is none the worse for it.
    EXPECT_TRUE(opens(key, sealed, nonce, tag));
}

} // namespace
} // namespace vornix
