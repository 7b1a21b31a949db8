// Deterministic microscopy-like frames for samples, tests and benchmarks: a
// smooth background, bright Gaussian spots that drift over time and blur away
// from a focal plane, and shot/read noise. Same arguments, same pixels.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <vector>

struct SSyntheticScene {
    uint32_t width = 512, height = 512;
    uint32_t components = 2;   // channels, interleaved per pixel
    uint32_t maxValue = 4095;  // samples lie in [0, maxValue]
    uint32_t seed = 1;
};

namespace synthetic_detail {

// Spots per channel and stage position in a 512 x 512 frame, enough to look
// like labelled cells; other sizes get as many per area, and at least a few.
constexpr double kSpotsPerPixel = 48.0 / (512.0 * 512.0);
constexpr uint32_t kMinSpotCount = 3;
// Z index the spots are sharpest at, on average; each spot sits a little off it.
constexpr float kFocalPlane = 2.0f;
// Z distance (in planes) over which a spot's width grows by sqrt(2).
constexpr float kDepthOfField = 1.5f;
// Spots are drawn out to this many standard deviations; beyond it they add
// less than one count.
constexpr float kSpotRadiusSigmas = 3.5f;
// Widest a defocused spot gets, pixels; bounds the drawing window.
constexpr float kMaxSpotSigma = 9.0f;
constexpr int kMaxSpotWindow = 2 * static_cast<int>(kSpotRadiusSigmas * kMaxSpotSigma) + 4;

inline uint64_t SplitMix64(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Hashes a sequence of small keys into one well-mixed 64-bit value.
inline uint64_t MixKeys(std::initializer_list<uint64_t> keys) {
    uint64_t h = 0x5851F42D4C957F2Dull;
    for (uint64_t key : keys) h = SplitMix64(h ^ key);
    return h;
}

// Fast sequential generator for the per-pixel noise (xorshift64*).
class CNoiseSource {
public:
    explicit CNoiseSource(uint64_t seed) : m_state(seed ? seed : 1) {}
    uint64_t Next() {
        m_state ^= m_state >> 12;
        m_state ^= m_state << 25;
        m_state ^= m_state >> 27;
        return m_state * 0x2545F4914F6CDD1Dull;
    }
    // Roughly standard-normal: the sum of four 16-bit uniforms (Irwin-Hall),
    // centred and scaled to unit variance. One generator step per sample.
    float Gaussian() {
        const uint64_t r = Next();
        const uint32_t sum = static_cast<uint32_t>((r & 0xFFFF) + ((r >> 16) & 0xFFFF) + ((r >> 32) & 0xFFFF) + (r >> 48));
        constexpr float kScale = 1.7320508f / 65536.0f;  // sqrt(12 / 4) per unit of 65536
        return (static_cast<float>(sum) - 131070.0f) * kScale;
    }

private:
    uint64_t m_state;
};

// Uniform value in [0, 1) from the top 24 bits of a hash.
inline float Unit(uint64_t h) { return static_cast<float>(h >> 40) * (1.0f / 16777216.0f); }

// One spot's fixed properties; where it is at a given time follows from them.
struct SSpot {
    float x0, y0;      // position at time 0, pixels
    float vx, vy;      // drift per time point, pixels
    float amplitude;   // peak above background at focus, fraction of maxValue
    float sigma;       // width at focus, pixels
    float zOffset;     // focus of this spot relative to the focal plane, planes
};

inline SSpot MakeSpot(const SSyntheticScene& scene, uint32_t position, uint32_t component, uint32_t index) {
    const uint64_t key = MixKeys({scene.seed, position, component, index, 0x5907});
    SSpot spot;
    spot.x0 = Unit(SplitMix64(key + 1)) * static_cast<float>(scene.width);
    spot.y0 = Unit(SplitMix64(key + 2)) * static_cast<float>(scene.height);
    spot.vx = (Unit(SplitMix64(key + 3)) - 0.5f) * 3.0f;
    spot.vy = (Unit(SplitMix64(key + 4)) - 0.5f) * 3.0f;
    spot.amplitude = 0.15f + 0.6f * Unit(SplitMix64(key + 5));
    spot.sigma = 1.2f + 2.3f * Unit(SplitMix64(key + 6));
    spot.zOffset = (Unit(SplitMix64(key + 7)) - 0.5f) * 2.0f;
    return spot;
}

// Adds one Gaussian spot to `signal` (width*height values), touching only the
// pixels within its radius. The Gaussian is separable, so the window costs two
// short rows of exp() and one multiply-add per pixel.
inline void AddSpot(const SSyntheticScene& scene, float cx, float cy, float peak, float sigma, float* signal) {
    const float radius = kSpotRadiusSigmas * sigma;
    const int x0 = std::max(0, static_cast<int>(std::floor(cx - radius)));
    const int x1 = std::min(static_cast<int>(scene.width) - 1, static_cast<int>(std::ceil(cx + radius)));
    const int y0 = std::max(0, static_cast<int>(std::floor(cy - radius)));
    const int y1 = std::min(static_cast<int>(scene.height) - 1, static_cast<int>(std::ceil(cy + radius)));
    if (x0 > x1 || y0 > y1) return;
    const float k = -0.5f / (sigma * sigma);
    float gx[kMaxSpotWindow], gy[kMaxSpotWindow];
    for (int x = x0; x <= x1; ++x) gx[x - x0] = std::exp(k * (x - cx) * (x - cx));
    for (int y = y0; y <= y1; ++y) gy[y - y0] = peak * std::exp(k * (y - cy) * (y - cy));
    for (int y = y0; y <= y1; ++y) {
        float* row = signal + static_cast<size_t>(y) * scene.width;
        for (int x = x0; x <= x1; ++x) row[x] += gy[y - y0] * gx[x - x0];
    }
}

// Draws the spots of one channel at one time point and Z plane, in units of
// maxValue. Out of focus a spot spreads its light: width grows, peak drops.
inline void DrawSpots(const SSyntheticScene& scene, uint32_t time, uint32_t position, uint32_t z, uint32_t component,
                      float* signal) {
    const float bleaching = std::pow(0.97f, static_cast<float>(time));
    const double area = static_cast<double>(scene.width) * scene.height;
    const uint32_t count = std::max(kMinSpotCount, static_cast<uint32_t>(std::lround(area * kSpotsPerPixel)));
    for (uint32_t i = 0; i < count; ++i) {
        const SSpot spot = MakeSpot(scene, position, component, i);
        const float dz = (static_cast<float>(z) - kFocalPlane - spot.zOffset) / kDepthOfField;
        const float blur = std::sqrt(1.0f + dz * dz);
        const float sigma = std::min(spot.sigma * blur, kMaxSpotSigma);
        const float peak = spot.amplitude * bleaching * (spot.sigma / sigma) * (spot.sigma / sigma);
        const float t = static_cast<float>(time);
        AddSpot(scene, spot.x0 + spot.vx * t, spot.y0 + spot.vy * t, peak, sigma, signal);
    }
}

// Background as a sum of a column and a row profile: a tilted illumination
// with a soft bump, different for each channel and stage position.
inline void FillBackground(const SSyntheticScene& scene, uint32_t position, uint32_t component, float* columns,
                           float* rows) {
    const uint64_t key = MixKeys({scene.seed, position, component, 0xB6});
    const float level = 0.03f + 0.04f * Unit(SplitMix64(key + 1));
    const float tiltX = (Unit(SplitMix64(key + 2)) - 0.5f) * 0.02f;
    const float tiltY = (Unit(SplitMix64(key + 3)) - 0.5f) * 0.02f;
    const float phaseX = 6.2831853f * Unit(SplitMix64(key + 4));
    const float phaseY = 6.2831853f * Unit(SplitMix64(key + 5));
    for (uint32_t x = 0; x < scene.width; ++x) {
        const float u = static_cast<float>(x) / static_cast<float>(scene.width);
        columns[x] = 0.5f * level + tiltX * u + 0.01f * std::sin(3.1415927f * u + phaseX);
    }
    for (uint32_t y = 0; y < scene.height; ++y) {
        const float v = static_cast<float>(y) / static_cast<float>(scene.height);
        rows[y] = 0.5f * level + tiltY * v + 0.01f * std::sin(3.1415927f * v + phaseY);
    }
}

}  // namespace synthetic_detail

// Fills width*height*components interleaved 16-bit samples for one frame of
// time index `time`, stage position `position` and Z plane `z`.
inline void FillSyntheticFrame(const SSyntheticScene& scene, uint32_t time, uint32_t position, uint32_t z,
                               uint16_t* out) {
    using namespace synthetic_detail;
    const size_t pixels = static_cast<size_t>(scene.width) * scene.height;
    const uint32_t components = scene.components;
    const float maxValue = static_cast<float>(scene.maxValue);
    // Shot noise as if one count were one photoelectron at 12 bits; scaled so
    // other ranges look alike. A little read noise on top.
    const float shotGain = maxValue / 4095.0f;
    const float readNoise = 1.5f * shotGain;
    std::vector<float> signal(pixels);
    std::vector<float> columns(scene.width), rows(scene.height);
    for (uint32_t c = 0; c < components; ++c) {
        std::fill(signal.begin(), signal.end(), 0.0f);
        FillBackground(scene, position, c, columns.data(), rows.data());
        DrawSpots(scene, time, position, z, c, signal.data());
        CNoiseSource noise(MixKeys({scene.seed, time, position, z, c, 0x4E}));
        uint16_t* sample = out + c;
        for (uint32_t y = 0; y < scene.height; ++y) {
            const float* row = signal.data() + static_cast<size_t>(y) * scene.width;
            for (uint32_t x = 0; x < scene.width; ++x, sample += components) {
                const float mean = (row[x] + columns[x] + rows[y]) * maxValue;
                const float sd = std::sqrt(mean * shotGain + readNoise * readNoise);
                const float value = mean + sd * noise.Gaussian() + 0.5f;
                *sample = static_cast<uint16_t>(std::clamp(value, 0.0f, maxValue));
            }
        }
    }
}
