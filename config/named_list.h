// The list behind the format and framebuffer databases: nodes that point at
// entries with a `name` field, one shared iterator, replacement by name.
#pragma once

#include <cstring>

#include <pxf/dst.h>
#include <pxf/err.h>

#include "foundation/alloc.h"

namespace pxf::cfg {

template <class Entry>
struct NamedNode {
    NamedNode *next;
    int builtin;   // built-in entries are static and never freed
    Entry *entry;
};

// Frees a file-made entry and the strings it owns.
template <class Entry>
inline void free_entry(Entry *entry) noexcept {
    if (!entry) return;
    heap_free(entry->name);
    ERR_free(entry);
}

template <class Entry>
class NamedList {
public:
    using Node = NamedNode<Entry>;

    void reset() noexcept { DST_ll_init(&list_); }

    // Appends a node for `entry`; false (reported by ERR_malloc) when no node.
    bool append(Entry *entry, int builtin) noexcept {
        auto *node = static_cast<Node *>(ERR_malloc(sizeof(Node)));
        if (!node) return false;
        node->next = nullptr;
        node->builtin = builtin;
        node->entry = entry;
        DST_ll_addt(&list_, node);
        return true;
    }

    // Appends `entry` and drops an older entry of the same name, so that a
    // replacement moves to the end.  False when no node could be allocated;
    // the list is then unchanged.
    bool append_replacing(Entry *entry) noexcept {
        Node *old = nullptr;
        for (auto *node = static_cast<Node *>(DST_ll_first(&list_)); node; node = node->next) {
            if (std::strcmp(node->entry->name, entry->name) == 0) {
                old = node;
                break;
            }
        }
        if (!append(entry, 0)) return false;
        if (old) {
            DST_ll_rem(&list_, old);
            drop(old);
        }
        return true;
    }

    void clear() noexcept {
        while (auto *node = static_cast<Node *>(DST_ll_remh(&list_))) drop(node);
        DST_ll_init(&list_);
    }

    void rewind() noexcept { DST_ll_initl(&list_); }

    Entry *next() noexcept {
        auto *node = static_cast<Node *>(DST_ll_nextl(&list_));
        return node ? node->entry : nullptr;
    }

    // On a hit the walk continues behind the entry found; on a miss the
    // iterator is left where it was.
    Entry *find(const char *name) noexcept {
        void *saved = DST_ll_getl(&list_);
        rewind();
        while (Entry *entry = next())
            if (std::strcmp(entry->name, name) == 0) return entry;
        DST_ll_setl(&list_, saved);
        return nullptr;
    }

private:
    static void drop(Node *node) noexcept {
        if (!node->builtin) free_entry(node->entry);
        ERR_free(node);
    }

    DST_LL list_{};
};

}  // namespace pxf::cfg
