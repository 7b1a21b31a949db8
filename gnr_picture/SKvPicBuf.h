// A picture in memory: its shape and one owned block of pixel rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "gnr_system/KvResult.h"

struct SKvPicBuf {
    uint32_t uiWidth = 0;
    uint32_t uiHeight = 0;
    uint32_t uiComponents = 0;
    uint32_t uiBitsPerComponent = 0;  // in memory: 8, 16 or 32
    uint32_t uiWidthBytes = 0;        // bytes from one row to the next
    std::vector<uint8_t> aData;       // uiWidthBytes x uiHeight bytes

    // Shapes the picture and allocates its rows (zeroed). Rows are
    // `widthBytes` apart, or the tight width rounded up to 4 bytes when 0.
    // KV_ERR_INVALID_ARG for a zero dimension, bits other than 8/16/32, or `widthBytes`
    // below the tight width; KV_ERR_OUT_OF_MEMORY when memory runs out. The picture is unchanged on failure.
    kv_result Create(uint32_t width, uint32_t height, uint32_t components, uint32_t bitsPerComponent,
                     uint32_t widthBytes = 0);
    uint8_t* Row(uint32_t y) { return aData.data() + static_cast<size_t>(y) * uiWidthBytes; }
    const uint8_t* Row(uint32_t y) const { return aData.data() + static_cast<size_t>(y) * uiWidthBytes; }
};
