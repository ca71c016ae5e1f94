// Ownership helpers for GMime, and the library's one-time set-up.
//
// GMime objects are reference-counted GObjects. Every object this module owns
// lives in a GObjectPtr, which drops its reference when it goes out of scope;
// getters that return borrowed objects are never wrapped. Strings that GMime
// allocates for the caller live in a GCharPtr (g_free).
//
// Thread-safety: ensureGMime() may be called from any thread (it initialises
// the library once). After that, distinct GMime objects may be used on
// distinct threads. shutdownGMime() is for the end of a process (tests and
// tools call it so that LeakSanitizer sees no library allocations) and must
// not race with any other use of GMime.
#pragma once

#include <gmime/gmime.h>

#include <memory>
#include <string>

namespace mailcore {

struct GObjectUnref {
    void operator()(gpointer object) const noexcept {
        if (object != nullptr) g_object_unref(object);
    }
};

template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct GCharFree {
    void operator()(char* text) const noexcept { g_free(text); }
};

using GCharPtr = std::unique_ptr<char, GCharFree>;

// Takes ownership of a newly created (or explicitly referenced) object.
template <typename T>
GObjectPtr<T> adoptGObject(T* object) {
    return GObjectPtr<T>(object);
}

// Initialises GMime once per process (or again after shutdownGMime()), with
// RFC 2047 and address parsing in loose mode.
void ensureGMime();

// Releases GMime's global state. Later calls to ensureGMime() initialise it
// again.
void shutdownGMime();

// Parser options shared by every parse: loose compliance, and UTF-8 then
// Windows-1252 as the fallback charsets for undeclared 8-bit header text.
// Owned by the library set-up; valid until shutdownGMime().
GMimeParserOptions* mimeParserOptions();

}  // namespace mailcore
