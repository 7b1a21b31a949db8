// The synthetic frame generator: a pure function of its arguments, samples
// in range, focus and content that change with the coordinates, and about
// the compressibility of real camera frames.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <vector>

#include "tools/common/SyntheticFrames.h"

namespace {

std::vector<uint16_t> Frame(const SSyntheticScene& scene, uint32_t t, uint32_t p, uint32_t z) {
    std::vector<uint16_t> samples(static_cast<size_t>(scene.width) * scene.height * scene.components, 0xFFFF);
    FillSyntheticFrame(scene, t, p, z, samples.data());
    return samples;
}

std::vector<uint16_t> Component(const std::vector<uint16_t>& frame, uint32_t components, uint32_t c) {
    std::vector<uint16_t> out;
    for (size_t i = c; i < frame.size(); i += components) out.push_back(frame[i]);
    return out;
}

TEST(SyntheticFrames, SameArgumentsSamePixelsAndEveryArgumentMatters) {
    SSyntheticScene scene;
    scene.width = 96;
    scene.height = 64;
    const std::vector<uint16_t> base = Frame(scene, 3, 1, 2);
    EXPECT_EQ(base, Frame(scene, 3, 1, 2));
    EXPECT_NE(base, Frame(scene, 4, 1, 2));
    EXPECT_NE(base, Frame(scene, 3, 2, 2));
    EXPECT_NE(base, Frame(scene, 3, 1, 3));
    EXPECT_NE(Component(base, 2, 0), Component(base, 2, 1));
    SSyntheticScene other = scene;
    other.seed = 2;
    EXPECT_NE(base, Frame(other, 3, 1, 2));
}

TEST(SyntheticFrames, SamplesStayInRangeAndSpotsStandOut) {
    for (uint32_t maxValue : {255u, 4095u, 65535u}) {
        SSyntheticScene scene;
        scene.width = 128;
        scene.height = 128;
        scene.components = 3;
        scene.maxValue = maxValue;
        const std::vector<uint16_t> frame = Frame(scene, 0, 0, 2);
        const uint16_t top = *std::max_element(frame.begin(), frame.end());
        std::vector<uint16_t> sorted = frame;
        std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
        const uint16_t median = sorted[sorted.size() / 2];
        EXPECT_LE(top, maxValue);
        EXPECT_GT(top, maxValue / 4) << "bright spots";
        EXPECT_LT(median, maxValue / 8) << "a dark background";
        EXPECT_GT(median, 0u) << "the background is above zero";
    }
}

// Spots are sharpest around the middle plane of five.
TEST(SyntheticFrames, SpotsBlurAwayFromFocus) {
    SSyntheticScene scene;
    scene.width = 256;
    scene.height = 256;
    scene.components = 1;
    auto peak = [&](uint32_t z) {
        const std::vector<uint16_t> f = Frame(scene, 0, 0, z);
        return *std::max_element(f.begin(), f.end());
    };
    EXPECT_GT(peak(2), peak(0));
    EXPECT_GT(peak(2), peak(4));
}

// Spots near and across the borders, and frames smaller than a spot.
TEST(SyntheticFrames, TinyAndNarrowFramesAreFilledCompletely) {
    for (auto [w, h] : {std::pair{1u, 1u}, {3u, 700u}, {700u, 2u}, {17u, 5u}}) {
        SSyntheticScene scene;
        scene.width = w;
        scene.height = h;
        for (uint32_t t : {0u, 9u}) {
            const std::vector<uint16_t> f = Frame(scene, t, 2, 4);
            EXPECT_TRUE(std::all_of(f.begin(), f.end(), [&](uint16_t v) { return v <= scene.maxValue; }))
                << w << "x" << h;
        }
    }
}

// Camera frames of this kind compress about 2:1 with zlib.
TEST(SyntheticFrames, CompressesLikeACameraFrame) {
    SSyntheticScene scene;
    scene.width = 1024;
    scene.height = 1024;
    scene.components = 1;
    const std::vector<uint16_t> frame = Frame(scene, 5, 1, 2);
    uLongf packedSize = compressBound(frame.size() * 2);
    std::vector<Bytef> packed(packedSize);
    ASSERT_EQ(Z_OK, compress2(packed.data(), &packedSize, reinterpret_cast<const Bytef*>(frame.data()),
                              frame.size() * 2, 6));
    const double ratio = frame.size() * 2.0 / packedSize;
    EXPECT_GE(ratio, 1.7);
    EXPECT_LE(ratio, 2.6);
}

}  // namespace
