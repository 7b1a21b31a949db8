#include "gnr_picture/SKvPicBuf.h"

#include "gnr_system/KvResult.h"

kv_result SKvPicBuf::Create(uint32_t width, uint32_t height, uint32_t components, uint32_t bitsPerComponent,
                            uint32_t widthBytes) {
    if (!width || !height || !components) return KV_ERR_INVALID_ARG;
    if (bitsPerComponent != 8 && bitsPerComponent != 16 && bitsPerComponent != 32) return KV_ERR_INVALID_ARG;
    const uint64_t tight = static_cast<uint64_t>(width) * components * (bitsPerComponent / 8);
    const uint64_t rowBytes = widthBytes ? widthBytes : (tight + 3) / 4 * 4;
    if (rowBytes < tight || rowBytes > UINT32_MAX) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        std::vector<uint8_t> rows(static_cast<size_t>(rowBytes * height));
        aData.swap(rows);
        uiWidth = width;
        uiHeight = height;
        uiComponents = components;
        uiBitsPerComponent = bitsPerComponent;
        uiWidthBytes = static_cast<uint32_t>(rowBytes);
        return KV_OK;
    });
}
