// The default GLib main context, shared by the main queue and the main run loop.
#pragma once

struct _GMainContext;
typedef struct _GMainContext GMainContext;

namespace nk::dispatch_internal {

// GLib's default main context. Fetched once, through a C++ static, so that every thread
// using it is ordered after the thread that created it in a way the thread sanitizer can
// see (GLib's own locking is invisible to it).
GMainContext* defaultMainContext();

}  // namespace nk::dispatch_internal
