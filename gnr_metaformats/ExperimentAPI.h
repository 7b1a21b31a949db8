// Queries and edits over the experiment-loop tree: how many frames a file
// has, where a frame sits in the loops and back, which channels a frame holds,
// and the repair of a tree that promises more or fewer frames than a file has.
#pragma once

#include <cstdint>
#include <vector>

#include "gnr_metaformats/PicturePlanes.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/KvResult.h"

// Rules this unit settles for itself:
// - Trees come from files. Every walk stops at kExpMaxDepth levels:
//   operations with a result code refuse deeper trees with KV_ERR_FAILED,
//   counting queries print the trace line and count 0 for the part below.
//   Validity arrays are as long as the item count (the structure keeps them
//   so); a phase-validity byte past the end of its vector counts as valid.
// - Counts are computed in 64 bits and saturate at UINT32_MAX; a count that
//   saturated is never smaller than the truth, and indices and coordinates
//   above UINT32_MAX are refused.
// - Coordinates count acquired items: an item whose validity byte is 0 has no
//   coordinate. A level with several next-level loops (repeat counts r1, r2..)
//   runs per item r1 times the first, then r2 times the second ...; its
//   coordinate counts those runs, so it lies below GetLoopSizeForDisplay =
//   loop size x next-level periodicity. A multi-phase time lapse counts the
//   items of all valid phases, also those of phases without frames (loop type
//   with a low bit set), whose items have no frames and so no index. Its
//   phases use their own sub-loops when the level has sub-loops, else the
//   level's next-level loops, with the same repeat-count rule per item.
// - A spectral level holds its channels as components of one frame: its
//   coordinate is always 0, its frame count the largest among its next-level
//   loops (one per channel, typically a Z stack each), and the walk goes on in
//   the first loop of that largest size.
// - GetSupersetSpectExp: a spectral level whose channels are the valid
//   channels of every spectral level in the tree, each distinct channel
//   (plane description, configuration name, colour) once, in the order met.
// - GetCompIndexes: the component indices a frame holds. Without a spectral
//   level every component of the pixel; with one, the components of the
//   channels whose next-level loop reaches the frame (all channels when the
//   spectral level has no next level or one shared by all channels).
// - Repair: the top level (slowest) is cut or extended to the frame count;
//   a multi-phase time lapse is cut inside the phase where the frames end
//   (later phases keep their parameters with no items). When the frames end
//   inside one top-level item, or more frames than phases hold, or the top
//   level is spectral, RepairExperiment turns the tree into a plain time
//   lapse of the frames so that none is lost, while RepairExperimentEx with
//   keepPartialItem false keeps only whole items where the loop allows it.
// - Z stack: positions are those stored for the stack; the first plane taken
//   is the low end, the high end for an inverted stack; the position shown for
//   plane i is low + i x step (high - i x step when inverted), relative to the
//   home position for a relative stack.
class CKvExperimentAPI {
public:
    // Called once per level by WalkExperiment; a non-zero answer stops the walk.
    typedef kv_result (*WalkCallback)(const SKvExperiment* exp, void* context, uint32_t depth);

    // ---- Sizes of one level.
    // Items acquired by this level (valid items; for a multi-phase time lapse
    // the items of its valid phases).
    static uint32_t GetLoopSize(const SKvExperiment* exp);
    // Loop size of the first level of kind `type` (depth first), 0 without one.
    static uint32_t GetLoopSize(const SKvExperiment* exp, uint32_t type);
    // Range of this level's coordinate (see the rules above).
    static uint32_t GetLoopSizeForDisplay(const SKvExperiment* exp);
    // Runs of next-level loops per item: 0 without a next-level array or with
    // an empty slot, 1 for an empty array or repeat counts adding up to 0.
    static uint32_t GetNextLevelPeriodicity(const SKvExperiment* exp);

    // ---- Shape of the tree.
    // Levels along the first next-level loop from the top.
    static uint32_t GetExperimentCount(const SKvExperiment* exp);
    // Next-level loop `index`; null when there is none.
    static SKvExperiment* GetNextLevelExperiment(const SKvExperiment* exp, uint32_t index);
    // First level of kind `type` in depth-first order (sub-loops included);
    // `depth` receives its depth when given. Null when there is none.
    static SKvExperiment* FindExperiment(const SKvExperiment* exp, uint32_t type, uint32_t* depth = nullptr);
    // True without an experiment; false as soon as a level has more than one
    // next-level loop.
    static bool IsSimpleExperiment(const SKvExperiment* exp);
    // Calls `callback` on every level, parents before children, in order.
    // KV_ERR_INVALID_ARG without a callback, 0 without an experiment, KV_ERR_FAILED for a tree deeper
    // than the limit, else the first non-zero answer of the callback.
    static kv_result WalkExperiment(const SKvExperiment* exp, WalkCallback callback, void* context,
                                    uint32_t depth = 0);

    // Sums of the loop sizes of all levels of one kind in the tree (time lapse
    // counts kinds 1, 8 and 9), saturating.
    static uint32_t GetAllTimeLoopsSize(const SKvExperiment* exp);
    static uint32_t GetAllXYPosLoopsSize(const SKvExperiment* exp);
    static uint32_t GetAllZStackLoopsSize(const SKvExperiment* exp);
    static uint32_t GetAllCustLoopsSize(const SKvExperiment* exp);

    // ---- Frames and coordinates.
    // Frames the tree describes (1 for a tree of no loops, 0 without one).
    static uint32_t GetAllImagesCount(const SKvExperiment* exp);
    // Coordinates of frame `index`, one per level along the walked path, top
    // first; slots past the path's end get 0. `count` (when given) receives
    // before any check the levels of the deepest branch (GetExperimentCount
    // when all branches are equally deep); `pos` must hold that many slots.
    // KV_ERR_INVALID_ARG without an experiment or on an empty next-level slot, KV_ERR_FAILED for an
    // index beyond the experiment or a path longer than `count`.
    static kv_result CalcPosFromIdx(const SKvExperiment* exp, uint32_t index, uint32_t* pos, uint32_t* count);
    // The inverse: `count` coordinates at `pos`; KV_ERR_FAILED for a coordinate outside
    // its level or naming no frame, KV_ERR_INVALID_ARG as above.
    static kv_result CalcIdxFromPos(const SKvExperiment* exp, const uint32_t* pos, uint32_t count,
                                    uint32_t& index);
    // Components of the pixel held by frame `index` (rule above), ascending.
    static kv_result GetCompIndexes(const SKvExperiment* exp, uint32_t index, uint32_t compCount,
                                    std::vector<uint32_t>& comps);
    // Frames that hold component `comp`, ascending.
    static kv_result GetCompSeqIndexes(const SKvExperiment* exp, uint32_t comp, uint32_t compCount,
                                       std::vector<uint32_t>& indexes);

    // ---- Spectral channels.
    static bool HasSameLambdaChannels(const SKvExperiment* exp);
    // `superset` receives a new spectral level (free with SKvExperiment::Free),
    // or null when the tree has no spectral level. KV_ERR_OUT_OF_MEMORY, KV_ERR_FAILED.
    static kv_result GetSupersetSpectExp(const SKvExperiment* exp, SKvExperiment** superset);
    // Valid planes of the superset channels; empty planes (result 0) without
    // a spectral level.
    static kv_result GetSpectPlanes(const SKvExperiment* exp, SKvPicturePlanes& planes);
    // Components of those planes.
    static kv_result GetSpectCompCount(const SKvExperiment* exp, uint32_t& count);

    // ---- Edits.
    static kv_result RepairExperiment(SKvExperiment* exp, uint32_t frames);
    static kv_result RepairExperimentEx(SKvExperiment* exp, uint32_t frames, bool keepPartialItem);
    // Inserts a copy of the level `level` (without its next levels) at depth
    // `index` of the first-child chain of `*root`: 0 makes it the new top;
    // the level that was there becomes its only next level. An index past the
    // chain appends at the end. `*root` may be null (the copy becomes the tree).
    static kv_result AddExperimentLevel(SKvExperiment** root, const SKvExperiment* level, uint32_t index);

    // ---- Z stack (the first Z-stack level of the tree; KV_ERR_NOT_FOUND without one).
    static kv_result GetZStackStepSize(const SKvExperiment* exp, double& step);
    static uint32_t GetZStackSizeMax(const SKvExperiment* exp);
    // Home position of `zstack`, which must be a Z-stack level (KV_ERR_INVALID_ARG otherwise).
    static kv_result GetZStackHomePosition(const SKvExperiment* zstack, double& home);
    static kv_result GetFirstZStackHomePosition(const SKvExperiment* exp, double& home);
    static kv_result GetZStackPositionForDisplay(const SKvExperiment* exp, uint32_t plane, double& position);
    static kv_result GetZStackFirstMovePosition(const SKvExperiment* exp, double& position);

    // ---- Other descriptions: the first non-empty camera name / large-image
    // record met depth first (empty / null without one).
    static CKvStringW GetCameraDescription(const SKvExperiment* exp);
    static const SKvExpLargeImage* GetLargeImage(const SKvExperiment* exp);
};
