// The progress callback of long operations (map recovery, frame reads with
// progress): shared by the container and the file interfaces above it.
#pragma once

// Progress in [0, 1]; answering true cancels the operation with
// KV_ERR_CANCELLED.
typedef bool (*KvProgressCallback)(double fraction, void* userData);
