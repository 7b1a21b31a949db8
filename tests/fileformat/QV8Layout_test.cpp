// Chunk names as readers, writers and tools build and parse them, and the
// zlib level a compression parameter stands for.
#include "fileformat/QV8Layout.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

TEST(QV8Layout, ZlibLevelOfTheCompressionParameter) {
    struct SCase {
        double parameter;
        int level;
    };
    for (const SCase& c : {SCase{0, 6}, SCase{0.99, 6}, SCase{-3, 6}, SCase{NAN, 6}, SCase{1, 1}, SCase{3.7, 3},
                           SCase{9, 9}, SCase{9.5, 9}, SCase{12, 9}, SCase{INFINITY, 9}, SCase{-INFINITY, 6}}) {
        EXPECT_EQ(c.level, KvQV8ZlibLevel(c.parameter)) << c.parameter;
    }
}

// The per-frame name without printf and the printf pattern agree, up to the
// largest index, and every name parses back to its index.
TEST(QV8Layout, FrameNamesAreBuiltAndParsedAlike) {
    for (uint32_t index : {0u, 7u, 10u, 4096u, 4294967295u}) {
        CKvStringA formatted;
        formatted.Format(kChunkFrame, index);
        EXPECT_STREQ(formatted.GetString(), SKvFrameChunkName(index).c_str());
        EXPECT_STREQ(formatted.GetString(), KvQV8ChunkName(kChunkFrame, index).GetString());
        uint32_t parsed = 0;
        EXPECT_TRUE(KvQV8ParseIndexedName(formatted.GetString(), kFrameChunkPrefix, parsed)) << formatted.GetString();
        EXPECT_EQ(index, parsed);
    }
    EXPECT_STREQ("ImageMetadataSeqLV|12!", KvQV8ChunkName(kChunkPictureMetaLV, 12).GetString());
}

TEST(QV8Layout, OnlyNamesAsPercentUWritesThemParse) {
    for (const char* name : {"ImageDataSeq|!", "ImageDataSeq|01!", "ImageDataSeq|-1!", "ImageDataSeq|+1!",
                             "ImageDataSeq|1", "ImageDataSeq|1a!", "ImageDataSeq|4294967296!",
                             "ImageDataSeq|99999999999!", "ImageDataSeqLV|1!", "imagedataseq|1!", "ImageData|1!"}) {
        uint32_t index = 77;
        EXPECT_FALSE(KvQV8ParseIndexedName(name, kFrameChunkPrefix, index)) << name;
        EXPECT_EQ(77u, index) << name;
    }
}

// The wide name goes in as UTF-8; a '%' in it is kept and not taken for the index.
TEST(QV8Layout, CustomDataNames) {
    EXPECT_STREQ("CustomData|Gr\xC3\xB6\xC3\x9F" "e!", KvQV8CustomChunkName(kChunkCustomData, L"Gr\u00F6\u00DFe").GetString());
    EXPECT_STREQ("CustomDataSeq|50%u|3!", KvQV8CustomChunkName(kChunkCustomDataSeq, L"50%u", 3).GetString());
    EXPECT_STREQ("CustomDataVarSeq|Tag|4294967295!",
                 KvQV8CustomChunkName(kChunkCustomDataVarSeq, L"Tag", 4294967295u).GetString());
    EXPECT_STREQ(kChunkAcqTimes, KvQV8CustomChunkName(kChunkCustomData, kAcqTimesName).GetString());
}

TEST(QV8Layout, IndexedChunksOfAMapByPrefix) {
    CKvChunkMap map;
    for (const char* name : {"ImageDataSeq|10!", "ImageDataSeq|2!", "ImageDataSeq|02!", "ImageDataSeqLV|1!",
                             "ImageAttributesLV!", "ImageMetadataSeqLV|5!", "ImageDataSeq|0!"})
        map.Set(name, SKvChunkMapMember{});
    std::vector<uint32_t> indices;
    KvQV8ForEachIndexedChunk(map, kFrameChunkPrefix, [&](std::string_view name, uint32_t index) {
        EXPECT_EQ(std::string(KvQV8ChunkName(kChunkFrame, index).GetString()), std::string(name));
        indices.push_back(index);
    });
    EXPECT_EQ((std::vector<uint32_t>{0, 10, 2}), indices) << "in the byte order of the names";
}

}  // namespace
