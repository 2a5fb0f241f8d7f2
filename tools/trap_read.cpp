// trap_read.cpp - the sections of a trap file.
#include "trap_read.h"

#include <stdio.h>
#include <string.h>

namespace zeptrap {

namespace {

class Reader {
public:
    explicit Reader(const std::vector<Uint8>& d) : data_(d) {}
    size_t offset() const { return pos_; }
    size_t left() const { return data_.size() - pos_; }
    bool take(void* out, size_t n) {
        if (left() < n) return false;
        if (n == 0) return true;  // an empty vector's data() may be null
        memcpy(out, data_.data() + pos_, n);
        pos_ += n;
        return true;
    }
    bool skip(Uint64 n) {
        if (left() < n) return false;
        pos_ += static_cast<size_t>(n);
        return true;
    }
    bool peek(void* out, size_t n) const {
        if (left() < n) return false;
        memcpy(out, data_.data() + pos_, n);
        return true;
    }

private:
    const std::vector<Uint8>& data_;
    size_t pos_ = 0;
};

const char* sectionName(Uint32 bit) {
    switch (bit) {
        case ZEP_TRAP_SYSTEM:
            return "system";
        case ZEP_TRAP_ENVIRONMENT:
            return "environment";
        case ZEP_TRAP_STACK:
            return "stack";
        case ZEP_TRAP_VERSION:
            return "version";
        case ZEP_TRAP_EXCEPTION:
            return "exception";
        case ZEP_TRAP_CONTEXT:
            return "context";
        case ZEP_TRAP_MODULES:
            return "modules";
        case ZEP_TRAP_MEMORY:
            return "memory";
        default:
            return nullptr;
    }
}

}  // namespace

void parse(const std::vector<Uint8>& data, Trap& t) {
    Reader r(data);
    r.take(&t.header, sizeof t.header);
    auto damaged = [&](const char* section, const char* what) {
        char b[256];
        snprintf(b, sizeof b, "%s in the %s section at offset %zu (the file has %zu bytes)", what,
                 section, r.offset(), data.size());
        t.damage = b;
    };
    while (r.left() > 0) {
        char eye[8];
        if (r.peek(eye, sizeof eye) && memcmp(eye, ZEP_TRAP_EYECATCHER, 8) == 0) {
            // A later dump's header.
            if (!r.take(&t.header, sizeof t.header)) return damaged("header", "truncated");
            continue;
        }
        ZEPTrapSectionHead head;
        if (!r.take(&head, sizeof head)) return damaged("next", "truncated before the mark");
        const char* name = sectionName(head.section);
        if (head.mark != ZEP_TRAP_SECTION_MARK || name == nullptr) {
            char b[160];
            snprintf(b, sizeof b, "no section mark at offset %zu (found %08x %08x)",
                     r.offset() - sizeof head, head.mark, head.section);
            t.damage = b;
            return;
        }
        switch (head.section) {
            case ZEP_TRAP_SYSTEM: {
                if (!r.take(&t.system, sizeof t.system) || !r.take(t.uts, sizeof t.uts))
                    return damaged(name, "truncated");
                t.hasSystem = true;
                Uint32 length = 0;
                if (r.peek(&length, sizeof length) && length == sizeof t.memory) {
                    if (!r.take(&t.memory, sizeof t.memory)) return damaged(name, "truncated");
                    t.hasMemoryStatus = true;
                }
                break;
            }
            case ZEP_TRAP_ENVIRONMENT: {
                t.hasEnvironment = true;
                for (;;) {
                    Uint32 length;
                    if (!r.take(&length, sizeof length)) return damaged(name, "truncated");
                    if (length > r.left()) return damaged(name, "a string longer than the file");
                    std::string s(length, '\0');
                    r.take(s.data(), length);
                    if (s == ZEP_TRAP_ENVIRONMENT_END) break;
                    t.environment.push_back(s);
                }
                break;
            }
            case ZEP_TRAP_EXCEPTION:
                if (!r.take(&t.si, sizeof t.si)) return damaged(name, "truncated");
                t.hasSiginfo = true;
                break;
            case ZEP_TRAP_CONTEXT:
                if (!r.take(&t.context, sizeof t.context)) return damaged(name, "truncated");
                t.hasContext = true;
                break;
            case ZEP_TRAP_MODULES: {
                t.hasModules = true;
                for (Uint32 i = 0; i < t.header.moduleCount; i++) {
                    ZEPTrapModuleRecord m;
                    if (!r.take(&m, sizeof m)) return damaged(name, "truncated");
                    m.name[sizeof m.name - 1] = 0;
                    t.modules.push_back(m);
                }
                break;
            }
            case ZEP_TRAP_VERSION:
                if (!r.take(&t.version, sizeof t.version)) return damaged(name, "truncated");
                t.hasVersion = true;
                break;
            case ZEP_TRAP_STACK: {
                t.hasStack = true;
                const size_t codeBytes =
                    t.header.codeBytes <= ZEP_TRAP_MAX_CODE_BYTES ? t.header.codeBytes : 0;
                // Nothing is sized by a count before the bytes are known to be there.
                if (r.left() < codeBytes) return damaged(name, "truncated");
                t.code.resize(codeBytes);
                r.take(t.code.data(), codeBytes);
                for (;;) {
                    ZEPStackFrame64 f;
                    if (!r.take(&f, sizeof f)) return damaged(name, "truncated");
                    t.frames.push_back(f);
                    if (f.AddrReturn == 0 || f.AddrReturn == ZEP_STACKWALK_BROKEN) break;
                    if (t.frames.size() > 100000) return damaged(name, "no end of the frames");
                }
                Uint32 words;
                if (!r.take(&words, sizeof words)) return damaged(name, "truncated");
                if (words > ZEP_TRAP_MAX_STACK_WORDS)
                    return damaged(name, "a raw stack longer than a trap file holds");
                if (r.left() / sizeof(Uint64) < words) return damaged(name, "truncated");
                t.rawStack.resize(words);
                r.take(t.rawStack.data(), words * sizeof(Uint64));
                break;
            }
            case ZEP_TRAP_MEMORY: {
                t.hasMemory = true;
                for (;;) {
                    Uint32 end;
                    if (!r.peek(&end, sizeof end)) return damaged(name, "truncated");
                    // A region's base is page-aligned, so it never reads as the end mark.
                    if (end == ZEP_TRAP_MEMORY_END) {
                        r.skip(sizeof end);
                        break;
                    }
                    Region g;
                    if (!r.take(&g.base, 8) || !r.take(&g.size, 8) || !r.skip(g.size))
                        return damaged(name, "truncated");
                    t.regions.push_back(g);
                }
                break;
            }
        }
    }
}

}  // namespace zeptrap
