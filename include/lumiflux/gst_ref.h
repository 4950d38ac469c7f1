#pragma once

/**
 * @file gst_ref.h
 * Small RAII owners for GLib and GStreamer references, for plug-ins and the
 * library alike: one template, one traits specialisation per
 * reference-counted type. The way a Ref is made says whether it takes over
 * the caller's reference (adopt: what a function returned "transfer full")
 * or adds one of its own (share: what was only lent).
 *
 * @code
 * using Tevara::Lumiflux::Internal::Ref;
 * auto encoder = Ref<GstElement>::adopt(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("vp8enc", nullptr))));
 * Ref<GstPad> pad = Ref<GstPad>::adopt(gst_element_get_static_pad(encoder.get(), "src"));
 * Ref<GstCaps> caps = Ref<GstCaps>::adopt(gst_pad_get_current_caps(pad.get()));
 * @endcode
 *
 * A Ref is a value: copying adds a reference, moving hands it over, and the
 * last owner drops it. Not thread-safe itself (like a shared_ptr instance):
 * one Ref is used by one thread at a time; the objects it holds are as
 * thread-safe as GLib makes them.
 */

#include <utility>

#include <glib-object.h>
#include <gst/gst.h>

namespace Tevara::Lumiflux::Internal {

/** How a type's reference is added and dropped; GObject's calls unless specialised. */
template <typename T> struct RefTraits {
    // GObject and everything derived from it (GstObject, GstElement, ...).
    static void ref(T* p) { g_object_ref(p); }     ///< adds a reference
    static void unref(T* p) { g_object_unref(p); } ///< drops a reference
};

/// @cond TRAITS

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

/// @endcond

/** Tag: take over the caller's reference. */
struct Adopt {};
/** Tag: add a reference of our own. */
struct Share {};

/** One reference to a GLib or GStreamer object, dropped when the Ref goes. */
template <typename T> class Ref {
public:
    Ref() = default;             ///< empty
    Ref(T* p, Adopt) : ptr(p) {} ///< takes over the caller's reference to `p`
    /** Adds a reference of its own to `p`. */
    Ref(T* p, Share) : ptr(p)
    {
        if (ptr)
            RefTraits<T>::ref(ptr);
    }
    Ref(const Ref& other) : Ref(other.ptr, Share{}) {}                    ///< adds a reference
    Ref(Ref&& other) noexcept : ptr(std::exchange(other.ptr, nullptr)) {} ///< hands the reference over
    /** Drops what was held and holds `other`'s reference instead. */
    Ref& operator=(Ref other) noexcept
    {
        std::swap(ptr, other.ptr);
        return *this;
    }
    ~Ref() { reset(); }

    /** Takes over the caller's reference to `p` (null gives an empty Ref). */
    static Ref adopt(T* p) { return Ref(p, Adopt{}); }
    /** Adds a reference of its own to `p` (null gives an empty Ref). */
    static Ref share(T* p) { return Ref(p, Share{}); }

    /** Drops the reference now; the Ref is empty afterwards. */
    void reset()
    {
        if (T* p = std::exchange(ptr, nullptr))
            RefTraits<T>::unref(p);
    }
    /** Hands the reference to the caller. */
    T* release() { return std::exchange(ptr, nullptr); }
    /** The object, still owned by this Ref; null when empty. */
    T* get() const { return ptr; }
    T* operator->() const { return ptr; }                     ///< the object
    explicit operator bool() const { return ptr != nullptr; } ///< whether a reference is held
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
