// Recovery of unfinished QV8 files. The chunk scan of the container shows
// every chunk to a callback: it keeps the attributes, checks each frame
// against them and keeps the frames' time prefixes; the same callback then
// adds what the writer's Finalize would have written before the map.
#include "fileformat/QV8Repair.h"

#include <zlib.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "fileformat/CKvFileChunker.h"
#include "fileformat/CKvQV8OutputFile.h"
#include "fileformat/QV8Layout.h"
#include "fileformat/SKvImageAttributes.h"
#include "gnr_system/CKvSerializerXMLString.h"
#include "gnr_system/KvBytes.h"

namespace {

// The writer's prefix of a frame without time.
constexpr double kNoTimePrefix = 0.0;

// True when `size` bytes hold one zlib stream of exactly `expected` bytes.
// The stream is inflated through a small window, so a frame size claimed by
// damaged attributes costs no memory.
bool InflatesToExactly(const uint8_t* data, uint64_t size, uint64_t expected) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) return false;
    uint8_t window[64 * 1024];
    uint64_t produced = 0;
    int r = Z_OK;
    while (r == Z_OK && produced <= expected) {
        // zlib counts in 32 bits: the input is handed over in pieces.
        if (stream.avail_in == 0 && size > 0) {
            stream.next_in = const_cast<uint8_t*>(data);
            stream.avail_in = static_cast<uInt>(std::min<uint64_t>(size, UINT32_MAX));
            data += stream.avail_in;
            size -= stream.avail_in;
        }
        stream.next_out = window;
        stream.avail_out = sizeof window;
        r = inflate(&stream, Z_NO_FLUSH);
        produced += sizeof window - stream.avail_out;
        if (r == Z_BUF_ERROR && stream.avail_in == 0 && size == 0) break;  // cut short
        if (r == Z_BUF_ERROR) r = Z_OK;
    }
    inflateEnd(&stream);
    return r == Z_STREAM_END && produced == expected;
}

struct SFoundFrame {
    bool whole = false;
    double prefix = kNoTimePrefix;
};

// What the scan has seen, and the state of the adding phase.
class CRepairScan {
public:
    CRepairScan(SKvQV8RepairReport& report, KvProgressCallback progress, void* userData)
        : m_report(report), m_pProgress(progress), m_pUserData(userData) {}

    static int OnChunk(SKvChunkHeader&, CKvStringA& name, CKvByteArray& data, void* self) {
        CRepairScan& scan = *static_cast<CRepairScan*>(self);
        const bool adding = isAddPhase(name);
        int answer = KV_ERR_CANCELLED;
        const kv_result r = KvNoThrow([&]() -> kv_result {
            answer = adding ? scan.addChunk(name, data) : (scan.seeChunk(name, data), KV_OK);
            return KV_OK;
        });
        if (r == KV_OK) return answer;
        // A failure while adding ends the adding and the repair reports it; the
        // map is written all the same. One while scanning leaves that chunk unseen.
        if (adding) scan.m_nResult = r;
        return KV_ERR_CANCELLED;
    }

    static bool OnProgress(double fraction, void* self) {
        const CRepairScan& scan = *static_cast<CRepairScan*>(self);
        return scan.m_pProgress && scan.m_pProgress(fraction, scan.m_pUserData);
    }

    // The first failure of the adding phase; the map is written all the same.
    kv_result Result() const { return m_nResult; }

private:
    static bool isAddPhase(const CKvStringA& name) {
        const std::string_view marker(kAddNewChunksName, std::string_view(kAddNewChunksName).find('%'));
        return name.View().substr(0, marker.size()) == marker;
    }

    // Fills the report's frame facts and prepares the chunks to add.
    kv_result Settle();
    void seeChunk(const CKvStringA& name, const CKvByteArray& data);
    void seeAttributes(const CKvByteArray& data, bool lite);
    bool isWholeFrame(const CKvByteArray& data);
    int addChunk(CKvStringA& name, CKvByteArray& data);

    SKvQV8RepairReport& m_report;
    KvProgressCallback m_pProgress;
    void* m_pUserData;

    std::set<std::string, std::less<>> m_setNames;  // data chunks seen, by name
    SKvImageAttributes m_sAttributes;
    bool m_bLiteAttributes = true;
    std::map<uint32_t, SFoundFrame> m_mapFrames;  // the last chunk of each index wins, as in the map

    // Chunks to add, in this order, then the end of the adding.
    CKvByteArray m_aAttributesChunk;
    CKvByteArray m_aTimesChunk;
    int m_nAddStep = 0;
    kv_result m_nResult = KV_OK;
};

void CRepairScan::seeChunk(const CKvStringA& name, const CKvByteArray& data) {
    const std::string_view n = name.View();
    if (n == kSignatureChunkName || n == kChunkMapChunkName) return;
    m_setNames.emplace(n);
    uint32_t index = 0;
    if (n == kChunkAttributesLV) seeAttributes(data, true);
    else if (n == kChunkAttributes) seeAttributes(data, false);
    else if (KvQV8ParseIndexedName(n, kFrameChunkPrefix, index)) {
        SFoundFrame& frame = m_mapFrames[index];
        frame.whole = isWholeFrame(data);
        frame.prefix = data.GetSize() >= kFramePrefixSize ? kvbytes::LoadF64(data.GetData()) : kNoTimePrefix;
    }
}

// A later attributes chunk replaces an earlier one, as in the map: a file
// appended to holds the attributes of each session.
void CRepairScan::seeAttributes(const CKvByteArray& data, bool lite) {
    SKvImageAttributes attributes;
    kv_result r = KV_ERR_FAILED;
    if (lite) {
        CKvLiteVariantR reader;
        static_cast<CKvByteArray&>(reader) = data;
        r = SKvImageAttributes::LoadFromLiteVariant(attributes, reader);
    } else if (data.GetSize()) {
        CKvVariant tree;
        r = CKvSerializerXMLString::VariantFromXML_UTF8(tree, reinterpret_cast<const char*>(data.GetData()),
                                                        static_cast<unsigned>(data.GetSize()));
        if (r == KV_OK) r = SKvImageAttributes::LoadFromVariant(attributes, tree);
    }
    if (r != KV_OK || !attributes.HasShape()) return;
    m_sAttributes = attributes;
    m_bLiteAttributes = lite;
    m_report.bAttributesFound = true;
    m_report.uiStoredSequenceCount = attributes.uiSequenceCount;
}

// A frame seen before any attributes cannot be checked and counts as torn;
// the writer always saves the attributes before the first frame.
bool CRepairScan::isWholeFrame(const CKvByteArray& data) {
    if (!m_report.bAttributesFound || data.GetSize() < kFramePrefixSize) return false;
    const uint64_t frameSize = m_sAttributes.FrameSize();
    const uint64_t stored = data.GetSize() - kFramePrefixSize;
    if (m_sAttributes.eCompression != kCompressionZlib) return stored >= frameSize;
    return InflatesToExactly(data.GetData() + kFramePrefixSize, stored, frameSize);
}

kv_result CRepairScan::Settle() {
    m_report.nChunksFound = m_setNames.size();
    if (!m_report.bAttributesFound) return KV_OK;

    uint32_t count = 0;
    bool anyTime = false;
    for (const auto& [index, frame] : m_mapFrames) {
        if (!frame.whole) {
            if (m_report.aTornFrames.size() < kMaxListedFrames) m_report.aTornFrames.push_back(index);
            continue;
        }
        ++m_report.uiFramesRecovered;
        if (frame.prefix != kNoTimePrefix) anyTime = true;
        count = index + 1;
    }
    m_report.uiSequenceCount = count;
    // Indexes come from chunk names, so the frames below the count that have
    // no chunk are found between the chunks, never by walking every index.
    uint64_t next = 0;
    for (const auto& [index, frame] : m_mapFrames) {
        if (index >= count) break;
        m_report.uiMissingFrames += index - next;
        for (uint64_t i = next; i < index && m_report.aMissingFrames.size() < kMaxListedFrames; ++i)
            m_report.aMissingFrames.push_back(static_cast<uint32_t>(i));
        next = uint64_t{index} + 1;
    }

    // Times and states as the writer's cache would hold them at its close;
    // like the writer's, the cache ends at kMaxAcqTimeIndex.
    const uint32_t cached = std::min<uint32_t>(count, kMaxAcqTimeIndex + 1);
    CKvByteArray times, states;
    if (times.SetSize(static_cast<uint64_t>(cached) * sizeof(double)) != KV_OK || states.SetSize(cached) != KV_OK)
        return KV_ERR_OUT_OF_MEMORY;
    std::fill(states.GetData(), states.GetData() + cached, kAcqTimeNone);
    for (uint32_t i = 0; i < cached; ++i) kvbytes::StoreF64(times.GetData() + uint64_t{i} * sizeof(double), kNoTimePrefix);
    for (const auto& [index, frame] : m_mapFrames) {
        if (index >= cached || !frame.whole || !anyTime) continue;
        ++m_report.uiTimedFrames;
        kvbytes::StoreF64(times.GetData() + uint64_t{index} * sizeof(double), frame.prefix);
        states.GetData()[index] = kAcqTimeWritten;
    }

    if (KvQV8SettleAcqTimes(times, states)) m_aTimesChunk = times;
    // As the writer's close: the attributes are saved again once a frame exists.
    if (count != 0 || count != m_report.uiStoredSequenceCount) {
        m_sAttributes.uiSequenceCount = count;
        const kv_result r = KvQV8EncodeImageAttributes(m_sAttributes, m_bLiteAttributes, m_aAttributesChunk);
        if (r != KV_OK) return r;
    }
    return KV_OK;
}

int CRepairScan::addChunk(CKvStringA& name, CKvByteArray& data) {
    // The scan is over when the first chunk may be added.
    if (m_nAddStep == 0) {
        m_nResult = Settle();
        if (m_nResult != KV_OK) return KV_ERR_CANCELLED;
    }
    for (;;) {
        switch (m_nAddStep++) {
        case 0:
            if (!m_aAttributesChunk.GetSize()) continue;
            name = m_bLiteAttributes ? kChunkAttributesLV : kChunkAttributes;
            data = m_aAttributesChunk;
            m_report.bAttributesRewritten = true;
            return KV_OK;
        case 1:
            if (!m_aTimesChunk.GetSize()) continue;
            name = kChunkAcqTimes;
            data = m_aTimesChunk;
            m_report.bAcqTimesRewritten = true;
            return KV_OK;
        default:
            return KV_ERR_CANCELLED;
        }
    }
}

}  // namespace

kv_result KvQV8RepairFile(const wchar_t* fileName, SKvQV8RepairReport& report, KvProgressCallback progress,
                          void* userData) {
    report = SKvQV8RepairReport();
    if (!fileName) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        CKvFileChunker chunker;
        CKvStringA version;
        kv_result r = chunker.Initialize_File(fileName, true, false, version);
        if (r == KV_OK) {
            chunker.Finalize();
            report.bHadChunkMap = true;
            return KV_OK;
        }
        if (r != KV_ERR_NOT_FOUND || !chunker.IsChunkMapMissing()) return r;
        CRepairScan scan(report, progress, userData);
        r = chunker.CreateMissingChunkMap(CRepairScan::OnChunk, &scan, CRepairScan::OnProgress);
        report.bHeldByWriter = chunker.IsHeldByWriter();
        chunker.Finalize();
        if (r != KV_OK) return r;
        return scan.Result();
    });
}
