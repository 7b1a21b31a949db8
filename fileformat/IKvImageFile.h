// The abstract image format and its input and output files. Callers reach
// files only through these; the QV8 classes implement them. The virtual
// operations are declared in their fixed slot order.
#pragma once

#include <cstdint>

#include "fileformat/SKvImageAttributes.h"
#include "gnr_metaformats/ExperimentRecord.h"
#include "gnr_metaformats/PictureMetadata.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_system/CKvByteArray.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvClass.h"
#include "gnr_system/KvProgress.h"
#include "gnr_system/KvResult.h"

class IKvInputImageFile;
class IKvOutputImageFile;

// Rules every operation below keeps:
// - Results are kv_result codes (KvResult.h); no exception leaves an
//   operation. KV_ERR_INVALID_ARG for null pointers and arguments out of
//   range, KV_ERR_NOT_FOUND for a chunk the file does not have,
//   KV_ERR_FAILED for damaged or malformed data and I/O failures,
//   KV_ERR_OUT_OF_MEMORY when memory runs out.
// - A failed read leaves the caller's structures as they were, except frame
//   and rectangle buffers, whose content is unspecified after a failure.
// - A file object is used by one thread at a time.
// - The virtual operations stay in their fixed slot order: new operations of
//   a concrete class go into that class, never in between.

// An image file format: what it is called, which files it takes, and the
// factory of its input and output files. The format object lives for the
// whole process; its AddRef and Release count nothing.
class IKvImageFormat : public CKvClass {
public:
    // Feature numbers; this library gives them no names of their own.
    enum _EKvImageFormatFeature : uint32_t {};

    // The short identifier the registry knows the format by.
    virtual kv_result GetID(CKvStringA& id) = 0;
    // A one-line description for people.
    virtual kv_result GetTextDescription(CKvStringW& text) = 0;
    // Extensions with their dot, separated by ";".
    virtual kv_result GetExtensions(CKvStringW& extensions) = 0;
    // KV_OK when the format supports `feature`, else KV_ERR_FORMAT_NOT_SUPPORTED.
    virtual kv_result IsFeatureSupported(_EKvImageFormatFeature feature) = 0;
    // KV_OK when frames of this shape can be stored, else
    // KV_ERR_FORMAT_NOT_SUPPORTED.
    virtual kv_result IsDataFormatSupported(uint32_t width, uint32_t height, uint8_t bitsPerComponent,
                                            uint32_t components) = 0;
    // Moves the arguments to the nearest shape the format stores.
    virtual kv_result AdjustDataFormat(uint32_t& width, uint32_t& height, uint8_t& bitsPerComponent,
                                       uint32_t& components) = 0;
    // IsDataFormatSupported and AdjustDataFormat on the fields of `attributes`.
    virtual kv_result IsFormatSupported(SKvImageAttributes& attributes) = 0;
    virtual kv_result AdjustFormat(SKvImageAttributes& attributes) = 0;
    // Creates a writer of `fileName`: a new file, or an existing one opened
    // for appending. The caller owns the one reference `file` carries and
    // ends it with Release. On failure `file` is null.
    virtual kv_result CreateOutputImageFile(CKvStringW fileName, IKvOutputImageFile*& file) = 0;
    // Creates a reader of `fileName`, with the same ownership. On failure
    // `file` is null: KV_ERR_REFUSED_VERSION for a version the format does not
    // read or a file whose map is missing (repair it first), KV_ERR_FAILED
    // for a file of another kind.
    virtual kv_result CreateInputImageFile(CKvStringW fileName, IKvInputImageFile*& file) = 0;
};

// A readable image file: attributes, frames, metadata and custom data, each
// read on request. Created by IKvImageFormat::CreateInputImageFile (or by a
// writer, over what it has written so far) with one reference; it ends
// through Release, which closes the file (there is no public destructor).
class IKvInputImageFile {
public:
    // Adds a reference; answers the count.
    virtual uint32_t AddRef() = 0;
    // Drops a reference; at zero the object destroys itself. Answers the
    // count left.
    virtual uint32_t Release() = 0;
    // The format that created the file (not counted: do not Release it).
    virtual IKvImageFormat* GetImageFormat() = 0;
    // Frame `sequenceIndex` whole into `buffer`, which must hold
    // SKvImageAttributes::FrameSize() bytes (widthBytes x height): raw rows
    // as stored, or the frame's zlib stream inflated. The frame must fill
    // the buffer exactly. KV_ERR_NOT_FOUND when the frame was never written,
    // KV_ERR_FAILED for a short, damaged or wrongly sized frame,
    // KV_ERR_INVALID_ARG for a null buffer. `progress` may be null.
    virtual kv_result GetData(uint32_t sequenceIndex, void* buffer, KvProgressCallback progress, void* userData) = 0;
    // The image attributes. Keys the file lacks keep the values `attributes`
    // holds on entry. KV_ERR_FAILED when a dimension (width, widthBytes,
    // height, components, bits in memory) comes out 0 or the chunk is
    // malformed or missing (the version-2 reader answers KV_ERR_NOT_FOUND for
    // a missing chunk).
    virtual kv_result GetImageAttributes(SKvImageAttributes& attributes) = 0;
    // The experiment (the acquisition loops); `tree`, when given, receives
    // the decoded tree as stored. `experiment` is replaced only on success.
    virtual kv_result GetImageMetadata(SKvExperiment& experiment, CKvVariant* tree) = 0;
    // The picture metadata of frame `sequenceIndex`: the file's shared
    // picture metadata with that frame's absolute and relative times from
    // the acquisition-time cache (a frame beyond the cache keeps the shared
    // times). `tree`, when given, receives the decoded tree.
    virtual kv_result GetImageMetadata(uint32_t sequenceIndex, SKvPictureMetadata& metadata, CKvVariant* tree) = 0;
    // The raw bytes stored under the custom-data name `name` (or, the Seq
    // form, under `name` for one frame). KV_ERR_NOT_FOUND when absent;
    // `data` is replaced only on success.
    virtual kv_result GetCustomData(const wchar_t* name, CKvByteArray& data) = 0;
    virtual kv_result GetCustomDataSeq(const wchar_t* name, uint32_t sequenceIndex, CKvByteArray& data) = 0;
    // Component `component` of frame `sequenceIndex`, samples packed into
    // rows of `rowBytes` bytes (0: width x sample size); `buffer` holds
    // height such rows. KV_ERR_INVALID_ARG for a component past the pixel's
    // count, rows shorter than the width needs, or non-zero `flags`.
    virtual kv_result GetComponentData(uint32_t sequenceIndex, uint32_t component, void* buffer, uint32_t rowBytes,
                                       uint32_t flags) = 0;
    // Conversion on reading is not offered: KV_ERR_NOT_SUPPORTED.
    virtual kv_result SetConversionParameters(int) { return KV_ERR_NOT_SUPPORTED; }
    // A custom-data variant tree stored under `name` (or under `name` for
    // one frame) into `tree`. KV_ERR_NOT_FOUND when absent, KV_ERR_FAILED
    // when the stored bytes do not decode.
    virtual kv_result GetCustomDataVar(const wchar_t* name, CKvVariant& tree) = 0;
    virtual kv_result GetCustomDataVarSeq(const wchar_t* name, uint32_t sequenceIndex, CKvVariant& tree) = 0;
    // The fourteen texts of the image text information; an absent text is
    // empty. KV_ERR_FAILED when the stored level is missing.
    virtual kv_result GetImageTextInfo(SKvImageTextInfo& info) = 0;
    // `data` is a CKvByteArray* that receives the binary-layer bytes, or null
    // to ask only whether the file has them (KV_OK yes, KV_ERR_NOT_FOUND no).
    virtual kv_result GetImageBinary(void* data) = 0;
    // The rectangle (left, top, width, height) of a frame resampled to
    // dstWidth x dstHeight pixels into `buffer`, rows `dstRowBytes` apart
    // (0: dstWidth x pixel size); `flags` must be 0. Raw frames read only the
    // source rows needed. Compressed frames are served at full size only, from
    // the thumbnail the file keeps; other requests on them are
    // KV_ERR_NOT_SUPPORTED. KV_ERR_INVALID_ARG for a rectangle outside the
    // frame or a zero size. `progress` is called once per destination row;
    // answering true stops with KV_ERR_CANCELLED.
    virtual kv_result GetRectData(uint32_t sequenceIndex, uint32_t left, uint32_t top, uint32_t width, uint32_t height,
                                  uint32_t dstWidth, uint32_t dstHeight, void* buffer, uint32_t dstRowBytes, int flags,
                                  KvProgressCallback progress, void* userData) = 0;
    // The event record of the acquisition; `tree`, when given, receives the
    // decoded tree. `record` is replaced only on success.
    virtual kv_result GetImageEvents(SKvExperimentRecord& record, CKvVariant* tree) = 0;
    // The time of the first frame, where a format keeps one; the default
    // sets 0.0 and answers KV_ERR_NOT_SUPPORTED.
    virtual kv_result GetAcqTime(double& time) {
        time = 0.0;
        return KV_ERR_NOT_SUPPORTED;
    }

protected:
    ~IKvInputImageFile() = default;
};

// Marks the QV8 readers.
class IKvQV8InputFile : public IKvInputImageFile {
protected:
    ~IKvQV8InputFile() = default;
};

// A writable image file. Frames are appended as they arrive, each handed to
// the system when FlushData returns; Finalize completes the file (attributes
// with the final frame count, acquisition times, the chunk map) and makes it
// durable. Created by IKvImageFormat::CreateOutputImageFile with one
// reference; it ends through Release. Released without Finalize, a file is
// left as after a crash: every frame written is there, the map is missing
// until repair rebuilds it.
//
// After a crash at any moment: a frame whose FlushData answered KV_OK
// survives a crash of the program, and a power cut once the next sync point
// (Finalize) has passed; everything survives a power cut once Finalize has
// answered KV_OK. A file without its map is made whole by repair.
class IKvOutputImageFile {
public:
    virtual uint32_t AddRef() = 0;
    virtual uint32_t Release() = 0;
    // Writes what completes the file, syncs it (and, for a new file, its
    // directory entry) and closes it: KV_OK means the file survives a power
    // cut. A failed write or sync answers its error (KV_ERR_FAILED for the
    // sync); once the file was closed that way, later calls answer
    // KV_ERR_FAILED, else they try again. After KV_OK, later calls answer
    // KV_OK and do nothing. A file whose writer never gets here keeps every
    // frame written, and its map can be rebuilt by repair.
    virtual kv_result Finalize() = 0;
    // The format that created the file (not counted).
    virtual IKvImageFormat* GetImageFormat() = 0;
    // `data` is a const CKvByteArray* with the binary-layer bytes.
    // KV_ERR_INVALID_ARG for null; the default answers KV_ERR_NOT_SUPPORTED.
    virtual kv_result SetImageBinary(void*) { return KV_ERR_NOT_SUPPORTED; }
    // The calibration of one picture; the default answers KV_ERR_NOT_SUPPORTED.
    virtual kv_result SetImageCalibration(uint32_t, double, double, bool, const CKvStringW&) {
        return KV_ERR_NOT_SUPPORTED;
    }
    // The frame shape and compression; taken when the first frame is written.
    // An appended file keeps at least the frames it has.
    virtual kv_result SetImageAttributes(const SKvImageAttributes& attributes) = 0;
    // The experiment. `tree` is not used by the QV8 writers.
    virtual kv_result SetImageMetadata(const SKvExperiment& experiment, const CKvVariant* tree) = 0;
    // Picture metadata of frame `sequenceIndex` (and its acquisition time).
    virtual kv_result SetImageMetadata(uint32_t sequenceIndex, const SKvPictureMetadata& metadata,
                                       const CKvVariant* tree) = 0;
    // `size` raw bytes under the custom-data name `name` (or, the Seq form,
    // under `name` for one frame). Writing a name again replaces what
    // readers see. KV_ERR_INVALID_ARG for a null name or more bytes than a
    // chunk holds.
    virtual kv_result SetCustomData(const wchar_t* name, const void* data, uint64_t size) = 0;
    // Writes frame `sequenceIndex` from `buffer` (FrameSize() bytes of the
    // attributes), compressed when the attributes ask for it. On KV_OK the
    // frame is in the file's pages handed to the system: it survives a crash
    // of the program, and a power cut after the next sync point (Finalize).
    // KV_ERR_FAILED before the attributes give the frame a shape or when the
    // storage fails (a full disk, say: the frames before stay readable),
    // KV_ERR_INVALID_ARG for a null buffer or a frame larger than a chunk holds.
    virtual kv_result FlushData(uint32_t sequenceIndex, void* buffer, KvProgressCallback progress, void* userData) = 0;
    virtual kv_result SetCustomDataSeq(const wchar_t* name, uint32_t sequenceIndex, const void* data,
                                       uint64_t size) = 0;
    // A reader of what the writer has written so far (the file need not be
    // finalized), with one reference for the caller. `flags` must be 0
    // (KV_ERR_INVALID_ARG otherwise).
    virtual kv_result CreateInputImageFile(uint32_t flags, IKvInputImageFile*& file,
                                           const SKvExperiment* experiment) = 0;
    // A custom-data variant tree under `name`, in the metadata encoding of
    // the file's version. KV_ERR_INVALID_ARG for a null name or tree.
    virtual kv_result SetCustomDataVar(const wchar_t* name, const CKvVariant* tree) = 0;
    // The fourteen texts of the image text information.
    virtual kv_result SetImageTextInfo(const SKvImageTextInfo& info) = 0;
    // The acquisition time of the frame the next FlushData writes.
    virtual kv_result SetAcqTime(double time) = 0;
    // The event record. `tree` is not used by the QV8 writers.
    virtual kv_result SetImageEvents(const SKvExperimentRecord& record, const CKvVariant* tree) = 0;

protected:
    ~IKvOutputImageFile() = default;
};
