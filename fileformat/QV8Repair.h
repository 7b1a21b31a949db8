// Recovery of a QV8 file whose writer never finished: rebuilds the chunk map
// and completes the file the way the writer's Finalize would have, from the
// frames the file holds, so that it reads like a file closed normally.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "gnr_system/KvProgress.h"
#include "gnr_system/KvResult.h"

// Most frame indexes a repair report lists of each kind; a damaged file may
// name frames anywhere up to 2^32.
constexpr size_t kMaxListedFrames = 1000;

// What a repair found and did.
struct SKvQV8RepairReport {
    bool bHadChunkMap = false;         // the file was finished: nothing was changed
    bool bHeldByWriter = false;        // refused: a writer still has the file open
    uint64_t nChunksFound = 0;         // data chunks the scan found (signature and old maps not counted)
    bool bAttributesFound = false;     // the attributes chunk survived (the frame shape is known)
    bool bAttributesRewritten = false; // ... and was saved again with the new sequence count
    uint32_t uiStoredSequenceCount = 0;  // the count the surviving attributes held
    uint32_t uiSequenceCount = 0;        // the count written: highest whole frame + 1
    uint32_t uiFramesRecovered = 0;      // whole frames below uiSequenceCount
    uint64_t uiMissingFrames = 0;          // below uiSequenceCount, no chunk found: they read as KV_ERR_NOT_FOUND
    std::vector<uint32_t> aMissingFrames;  // ... the first kMaxListedFrames of them
    std::vector<uint32_t> aTornFrames;     // chunk found but not one whole frame, not counted (the first kMaxListedFrames)
    uint32_t uiTimedFrames = 0;          // recovered frames that carry an acquisition time
    bool bAcqTimesRewritten = false;     // the time chunk was written anew
};

// Repairs `fileName` in place. A file that has its chunk map is left as it
// is (report.bHadChunkMap). Otherwise the chunks are scanned, every frame is
// checked whole (a raw frame holds its time prefix and widthBytes x height
// bytes; a compressed one inflates to exactly that many), and then the
// attributes are saved again in the file's own encoding with the sequence
// count of the frames found, the acquisition-time chunk is rebuilt from the
// frames' time prefixes, and the map is written last. Header chunks written
// before the first frame stay as they are.
//
// The sequence count is the highest whole frame + 1, as the writer counts
// it; lower frames without a whole chunk are listed and stay unreadable. A
// time prefix of 0.0 is what the writer stores for a frame without time: it
// is taken as a time only when some other frame has a non-zero prefix.
//
// KV_OK when the map was rebuilt (or present); KV_ERR_FAILED when the file is
// not a container or a writer still holds it (report.bHeldByWriter); KV_ERR_CANCELLED when `progress` cancels the scan (nothing
// is written); errors of the storage pass through. A file without surviving
// attributes gets its map only: report.bAttributesFound is false.
kv_result KvQV8RepairFile(const wchar_t* fileName, SKvQV8RepairReport& report, KvProgressCallback progress,
                          void* userData);
