#pragma once

// Small RAII owners for GLib and GStreamer references. One template, one
// traits specialisation per reference-counted type; the constructor says
// whether it takes over the caller's reference (adopt) or adds one (share).

#include <utility>

#include <glib-object.h>
#include <gst/gst.h>

namespace Tevara::Lumiflux::Internal {

template <typename T> struct RefTraits {
    // GObject and everything derived from it (GstObject, GstElement, ...).
    static void ref(T* p) { g_object_ref(p); }
    static void unref(T* p) { g_object_unref(p); }
};

template <> struct RefTraits<GstBuffer> {
    static void ref(GstBuffer* p) { gst_buffer_ref(p); }
    static void unref(GstBuffer* p) { gst_buffer_unref(p); }
};
template <> struct RefTraits<GstCaps> {
    static void ref(GstCaps* p) { gst_caps_ref(p); }
    static void unref(GstCaps* p) { gst_caps_unref(p); }
};
template <> struct RefTraits<GstSample> {
    static void ref(GstSample* p) { gst_sample_ref(p); }
    static void unref(GstSample* p) { gst_sample_unref(p); }
};
template <> struct RefTraits<GstMessage> {
    static void ref(GstMessage* p) { gst_message_ref(p); }
    static void unref(GstMessage* p) { gst_message_unref(p); }
};
template <> struct RefTraits<GstEvent> {
    static void ref(GstEvent* p) { gst_event_ref(p); }
    static void unref(GstEvent* p) { gst_event_unref(p); }
};
template <> struct RefTraits<GstQuery> {
    static void ref(GstQuery* p) { gst_query_ref(p); }
    static void unref(GstQuery* p) { gst_query_unref(p); }
};
template <> struct RefTraits<GstMemory> {
    static void ref(GstMemory* p) { gst_memory_ref(p); }
    static void unref(GstMemory* p) { gst_memory_unref(p); }
};
template <> struct RefTraits<GstTagList> {
    static void ref(GstTagList* p) { gst_tag_list_ref(p); }
    static void unref(GstTagList* p) { gst_tag_list_unref(p); }
};
template <> struct RefTraits<GstStructure> {
    // Structures are not reference counted: "ref" is not offered.
    static void unref(GstStructure* p) { gst_structure_free(p); }
};
template <> struct RefTraits<GVariant> {
    static void ref(GVariant* p) { g_variant_ref(p); }
    static void unref(GVariant* p) { g_variant_unref(p); }
};
template <> struct RefTraits<GMainContext> {
    static void ref(GMainContext* p) { g_main_context_ref(p); }
    static void unref(GMainContext* p) { g_main_context_unref(p); }
};
template <> struct RefTraits<GMainLoop> {
    static void ref(GMainLoop* p) { g_main_loop_ref(p); }
    static void unref(GMainLoop* p) { g_main_loop_unref(p); }
};
template <> struct RefTraits<GSource> {
    static void ref(GSource* p) { g_source_ref(p); }
    static void unref(GSource* p) { g_source_unref(p); }
};
template <> struct RefTraits<GError> {
    static void unref(GError* p) { g_error_free(p); }
};

/** Tag: take over the caller's reference. */
struct Adopt {};
/** Tag: add a reference of our own. */
struct Share {};

template <typename T> class Ref {
public:
    Ref() = default;
    Ref(T* p, Adopt) : ptr(p) {}
    Ref(T* p, Share) : ptr(p)
    {
        if (ptr)
            RefTraits<T>::ref(ptr);
    }
    Ref(const Ref& other) : Ref(other.ptr, Share{}) {}
    Ref(Ref&& other) noexcept : ptr(std::exchange(other.ptr, nullptr)) {}
    Ref& operator=(Ref other) noexcept
    {
        std::swap(ptr, other.ptr);
        return *this;
    }
    ~Ref() { reset(); }

    static Ref adopt(T* p) { return Ref(p, Adopt{}); }
    static Ref share(T* p) { return Ref(p, Share{}); }

    void reset()
    {
        if (T* p = std::exchange(ptr, nullptr))
            RefTraits<T>::unref(p);
    }
    /** Hands the reference to the caller. */
    T* release() { return std::exchange(ptr, nullptr); }
    T* get() const { return ptr; }
    T* operator->() const { return ptr; }
    explicit operator bool() const { return ptr != nullptr; }
    /** For out-parameters of C functions: drops what is held, then gives the slot. */
    T** out()
    {
        reset();
        return &ptr;
    }

private:
    T* ptr = nullptr;
};

} // namespace Tevara::Lumiflux::Internal
