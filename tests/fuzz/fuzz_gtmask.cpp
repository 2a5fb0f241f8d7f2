// The full trace mask as it comes from a dump (or from a damaged shared block): a mask the library
// built, damaged by the input, then asked and changed as trace points and control programs do.
// No damaged field may hang a walk, or read or write outside the mask.
//
// The input is a list of steps, each a step byte and its operands (little-endian):
//   0: patch  offset:u32 length:u8 bytes   (bytes of the mask from offset, modulo its size)
//   1: test   id:u32 type:u8 probe:u16      (gtmIsElemInMask)
//   2: set    id:u32 typeOrProbe:u16 flags:u8
//   3: delete id:u32 typeOrProbe:u16 flags:u8
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "zep.h"

namespace {

struct Reader {
    const Uint8* p;
    size_t left;
    template <class T>
    bool take(T* v) {
        if (left < sizeof(T)) return false;
        memcpy(v, p, sizeof(T));
        p += sizeof(T), left -= sizeof(T);
        return true;
    }
};

void split(Uint32 id, Uint32* product, Uint32* component, Uint32* function) {
    *product = id >> 27;
    *component = (id >> 19) & 0xFF;
    *function = id & 0xFFFF;
    if (id >> 16 == 0xFFFF) *product = *component = *function = GTM_WILDCARD;
}

const GTM_TRC_MASK& pristine() {
    static std::unique_ptr<GTM_TRC_MASK> m = [] {
        auto mask = std::make_unique<GTM_TRC_MASK>();
        mask->gtmClearMask();
        mask->gtmSetMask(1, 3, 0x16, GTM_WILDCARD, 0, 0);
        mask->gtmSetMask(1, 3, 0x20, 2, 0, 0);
        mask->gtmSetMask(1, 2, GTM_WILDCARD, 1, 0, 0);
        for (Uint32 i = 0; i < 40; ++i) mask->gtmSetMask(1, 3, 0x30 + i, 10 * i, GTM_FLAG_PROBE, i);
        mask->gtmDelMask(1, 2, 0x5, 1, 0);
        mask->gtmDelMask(1, 2, 0x7, 30, GTM_FLAG_PROBE);
        return mask;
    }();
    return *m;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const Uint8* data, size_t size) {
    static GTM_TRC_MASK* mask = new GTM_TRC_MASK;
    memcpy(static_cast<void*>(mask), &pristine(), sizeof *mask);
    Uint8* bytes = reinterpret_cast<Uint8*>(mask);
    Reader in{data, size};
    Uint8 step;
    while (in.take(&step)) {
        Uint32 id, offset, p, c, f;
        Uint16 arg;
        Uint8 len, flags;
        switch (step % 4) {
            case 0:
                if (!in.take(&offset) || !in.take(&len)) return 0;
                for (Uint32 i = 0; i < len && in.left > 0; ++i, ++in.p, --in.left)
                    bytes[(offset + i) % sizeof *mask] = *in.p;
                break;
            case 1:
                if (!in.take(&id) || !in.take(&flags) || !in.take(&arg)) return 0;
                mask->gtmIsElemInMask(id, flags, arg);
                break;
            case 2:
            case 3:
                if (!in.take(&id) || !in.take(&arg) || !in.take(&flags)) return 0;
                split(id, &p, &c, &f);
                if (step % 4 == 2)
                    mask->gtmSetMask(p, c, f, arg == 0xFFFF ? GTM_WILDCARD : arg, flags & 1, id);
                else
                    mask->gtmDelMask(p, c, f, arg == 0xFFFF ? GTM_WILDCARD : arg, flags & 1);
                break;
        }
    }
    GTMask compact{};
    mask->gtmReplicateMask(&compact);
    for (Uint32 prod = 0; prod < 4; ++prod) {
        mask->gtmIsCompMaskFull(prod);
        for (Uint32 comp = 0; comp < 40; ++comp) {
            mask->gtmIsFuncMaskFull(prod, comp);
            mask->gtmIsTypeMaskFull(prod, comp);
            mask->gtmIsCompInMask(prod, comp);
        }
    }
    mask->gtmIsProdMaskFull();
    return 0;
}
