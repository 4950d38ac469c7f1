// GLib grows its quark array into a bigger copy and never frees the old one, which lock-free readers may hold.
// The first comes from GLib's library constructor, whose frames have no symbols here, so no suppression can name
// it. This constructor finds each array while it is current (our anchor string at our anchor quark), marks it as
// meant to live, and grows it up front so that no program here makes GLib abandon another. In every test program.

#if defined(__SANITIZE_ADDRESS__)
#define LUMIFLUX_TEST_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LUMIFLUX_TEST_LSAN 1
#endif
#endif

#ifdef LUMIFLUX_TEST_LSAN

#include <link.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include <glib.h>
#include <sanitizer/lsan_interface.h>

// From the sanitizer runtime's allocator interface, whose header GCC does not ship.
extern "C" int __sanitizer_get_ownership(const volatile void* p);
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* p);

namespace {

const char anchorText[] = "lumiflux-test-quark-anchor";

struct Search {
    GQuark quark;
    const void* found;
};

int scanGlibData(dl_phdr_info* info, size_t, void* data)
{
    auto* search = static_cast<Search*>(data);
    if (!info->dlpi_name || !std::strstr(info->dlpi_name, "libglib-2.0.so"))
        return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD || !(header.p_flags & PF_W))
            continue;
        std::uintptr_t begin = info->dlpi_addr + header.p_vaddr;
        const std::uintptr_t end = begin + header.p_memsz;
        begin = (begin + sizeof(void*) - 1) & ~(std::uintptr_t{sizeof(void*)} - 1);
        for (std::uintptr_t at = begin; at + sizeof(void*) <= end; at += sizeof(void*)) {
            const void* candidate = *reinterpret_cast<const void* const*>(at);
            if (!candidate || !__sanitizer_get_ownership(candidate) ||
                __sanitizer_get_allocated_size(candidate) <= search->quark * sizeof(char*))
                continue;
            if (static_cast<const char* const*>(candidate)[search->quark] == anchorText) {
                search->found = candidate;
                return 1;
            }
        }
    }
    return 0;
}

// Up front: a program that loads every codec element of the registry makes more than 4096 quarks.
constexpr std::size_t kQuarksReserved = 16384;

__attribute__((constructor)) void exemptQuarkArrays()
{
    const GQuark anchor = g_quark_from_static_string(anchorText);
    for (unsigned padding = 0;;) {
        Search search{anchor, nullptr};
        dl_iterate_phdr(scanGlibData, &search);
        if (!search.found)
            return;
        __lsan_ignore_object(search.found);
        const std::size_t capacity = __sanitizer_get_allocated_size(search.found) / sizeof(char*);
        if (capacity >= kQuarksReserved)
            return;
        // Fill the current array: the next quark makes GLib switch to a bigger one, exempted in the next round.
        GQuark last = 0;
        while (last < capacity) {
            char text[48];
            std::snprintf(text, sizeof text, "lumiflux-test-quark-padding-%u", padding++);
            last = g_quark_from_string(text);
        }
    }
}

} // namespace

#endif
