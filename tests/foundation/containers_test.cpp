// Queues, trees and symbol tables against the standard containers under random operations.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <pxf/dst_queue.h>
#include <pxf/dst_symbol.h>
#include <pxf/dst_tree.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

void *as_pointer(uintptr_t v) { return reinterpret_cast<void *>(v); }

TEST(Queue, BehavesLikeADequeUsedFromTheFront) {
    DST_Q *q = DST_q_new();
    ASSERT_NE(q, nullptr);
    std::deque<uintptr_t> ref;
    std::mt19937 rng(2);
    for (int i = 0; i < 20000; ++i) {
        uintptr_t v = rng() | 1;
        switch (rng() % 3) {
        case 0: ASSERT_EQ(DST_q_put(q, as_pointer(v)), 0); ref.push_back(v); break;
        case 1: ASSERT_EQ(DST_q_push(q, as_pointer(v)), 0); ref.push_front(v); break;
        default:
            ASSERT_EQ(DST_q_peek(q), ref.empty() ? nullptr : as_pointer(ref.front()));
            ASSERT_EQ(DST_q_get(q), ref.empty() ? nullptr : as_pointer(ref.front()));
            if (!ref.empty()) ref.pop_front();
        }
        ASSERT_EQ(DST_q_length(q), ref.size());
        if (i == 10000) {
            DST_q_clear(q);
            ref.clear();
        }
    }
    DST_q_free(q);
    DST_q_free(nullptr);
}

TEST(Queue, ExhaustedMemoryLeavesTheQueueAsItWas) {
    DST_Q q;
    DST_q_init(&q);
    ASSERT_EQ(DST_q_put(&q, as_pointer(1)), 0);
    pxf::test::ReportCapture capture;
    pxf::fault::arm(1);
    EXPECT_EQ(DST_q_put(&q, as_pointer(2)), -1);
    pxf::fault::arm(1);
    EXPECT_EQ(DST_q_push(&q, as_pointer(3)), -1);
    pxf::fault::disarm();
    EXPECT_TRUE(capture.saw("No more internal memory"));
    EXPECT_EQ(DST_q_length(&q), 1u);
    EXPECT_EQ(DST_q_get(&q), as_pointer(1));
    // A node given back is reused without asking the heap.
    pxf::fault::arm(1, true);
    EXPECT_EQ(DST_q_push(&q, as_pointer(4)), 0);
    pxf::fault::disarm();
    DST_q_clear(&q);
}

int compare_strings(const void *a, const void *b) {
    return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

// The tree in order, forwards and backwards, equals the map; its height
// keeps within the bound of a height-balanced tree.
template <class Map, class Key>
void expect_same(DST_TREE *tree, const Map &ref, Key key_of) {
    ASSERT_EQ(DST_tree_count(tree), ref.size());
    auto it = ref.begin();
    for (DST_TREE_NODE *n = DST_tree_first(tree); n; n = DST_tree_next(n), ++it) {
        ASSERT_NE(it, ref.end());
        ASSERT_EQ(key_of(DST_tree_key(n)), it->first);
        ASSERT_EQ(DST_tree_data(n), it->second);
    }
    ASSERT_EQ(it, ref.end());
    auto rit = ref.rbegin();
    for (DST_TREE_NODE *n = DST_tree_last(tree); n; n = DST_tree_prev(n), ++rit)
        ASSERT_EQ(key_of(DST_tree_key(n)), rit->first);
    ASSERT_LE(DST_tree_height(tree), 1.4405 * std::log2(ref.size() + 2.0) - 0.3277 + 1e-9);
}

TEST(Tree, IntegerKeysAgainstStdMap) {
    DST_TREE *tree = DST_tree_new(nullptr);
    std::map<uintptr_t, void *> ref;
    std::mt19937 rng(4);
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 1500; ++i) {
            uintptr_t k = rng() % 3000;
            void *data = as_pointer(rng());
            int op = static_cast<int>(rng() % 4);
            if (op < 2) {
                bool fresh = ref.emplace(k, data).second;
                ASSERT_EQ(DST_tree_insert(tree, as_pointer(k), data), fresh ? 1 : 0);
            } else if (op == 2) {
                void *got = nullptr;
                auto it = ref.find(k);
                ASSERT_EQ(DST_tree_delete(tree, as_pointer(k), &got), it != ref.end() ? 1 : 0);
                if (it != ref.end()) {
                    ASSERT_EQ(got, it->second);
                    ref.erase(it);
                }
            } else {
                auto it = ref.find(k);
                ASSERT_EQ(DST_tree_find(tree, as_pointer(k)), it == ref.end() ? nullptr : it->second);
            }
        }
        expect_same(tree, ref, [](const void *p) { return reinterpret_cast<uintptr_t>(p); });
    }
    DST_tree_free(tree);
}

TEST(Tree, StringKeysSortedInputAndTraversal) {
    DST_TREE *tree = DST_tree_new(compare_strings);
    std::map<std::string, void *> ref;
    std::vector<std::string> keys;
    for (int i = 0; i < 5000; ++i) keys.push_back("key" + std::to_string(100000 + i));  // ascending: the worst case of a plain tree
    for (auto &k : keys) {
        ASSERT_EQ(DST_tree_insert(tree, k.c_str(), &k), 1);
        ref[k] = &k;
    }
    expect_same(tree, ref, [](const void *p) { return std::string(static_cast<const char *>(p)); });
    for (std::size_t i = 0; i < keys.size(); i += 2) {
        ASSERT_EQ(DST_tree_delete(tree, keys[i].c_str(), nullptr), 1);
        ref.erase(keys[i]);
    }
    expect_same(tree, ref, [](const void *p) { return std::string(static_cast<const char *>(p)); });
    ASSERT_EQ(DST_tree_find(tree, "key100001"), &keys[1]);
    DST_tree_set_data(DST_tree_lookup(tree, "key100001"), nullptr);
    EXPECT_EQ(DST_tree_find(tree, "key100001"), nullptr);

    struct Walk {
        int seen = 0, stop_at = 0;
        std::string last;
    } walk;
    auto visit = [](const void *key, void *, void *arg) {
        auto *w = static_cast<Walk *>(arg);
        std::string k = static_cast<const char *>(key);
        EXPECT_LT(w->last, k);
        w->last = k;
        return ++w->seen != w->stop_at ? 1 : 0;
    };
    EXPECT_EQ(DST_tree_traverse(tree, visit, &walk), 1);
    EXPECT_EQ(walk.seen, 2500);
    walk = Walk{0, 10, ""};
    EXPECT_EQ(DST_tree_traverse(tree, visit, &walk), 0);
    EXPECT_EQ(walk.seen, 10);
    DST_tree_free(tree);
}

TEST(Tree, ExhaustedMemoryChangesNothing) {
    DST_TREE *tree = nullptr;
    pxf::test::ReportCapture capture;
    pxf::fault::arm(1);
    EXPECT_EQ(DST_tree_new(nullptr), nullptr);
    pxf::fault::disarm();
    tree = DST_tree_new(nullptr);
    for (uintptr_t k = 1; k <= 100; ++k) ASSERT_EQ(DST_tree_insert(tree, as_pointer(k), nullptr), 1);
    pxf::fault::arm(1);
    EXPECT_EQ(DST_tree_insert(tree, as_pointer(1000), nullptr), -1);
    pxf::fault::disarm();
    EXPECT_TRUE(capture.saw("No more internal memory"));
    EXPECT_EQ(DST_tree_count(tree), 100u);
    EXPECT_EQ(DST_tree_lookup(tree, as_pointer(1000)), nullptr);
    // Deleted nodes are reused before the heap is asked.
    ASSERT_EQ(DST_tree_delete(tree, as_pointer(50), nullptr), 1);
    pxf::fault::arm(1, true);
    EXPECT_EQ(DST_tree_insert(tree, as_pointer(1000), nullptr), 1);
    pxf::fault::disarm();
    DST_tree_free(tree);
    DST_tree_free(nullptr);
}

// Every entry once through the iteration, data as in the reference.
template <class Ref, class Key>
void expect_same(const DST_SYMBOL *table, const Ref &ref, Key key_of) {
    ASSERT_EQ(DST_symbol_count(table), ref.size());
    std::size_t seen = 0;
    for (DST_SYM *s = DST_sym_first(table); s; s = DST_sym_next(table, s), ++seen) {
        auto it = ref.find(key_of(DST_sym_key(s)));
        ASSERT_NE(it, ref.end());
        ASSERT_EQ(DST_sym_data(s), it->second);
    }
    ASSERT_EQ(seen, ref.size());
}

TEST(Symbol, StringKeysAgainstUnorderedMap) {
    DST_SYMBOL *table = DST_symbol_new(DST_SYMBOL_STRING, 0);
    ASSERT_NE(table, nullptr);
    std::unordered_map<std::string, void *> ref;
    std::mt19937 rng(6);
    auto key_of = [](const void *p) { return std::string(static_cast<const char *>(p)); };
    for (int i = 0; i < 40000; ++i) {
        std::string k(1 + rng() % 20, 'x');
        for (auto &c : k) c = "abc"[rng() % 3];  // short keys collide in prefixes, long ones cross word boundaries
        void *data = as_pointer(rng());
        int op = static_cast<int>(rng() % 4);
        if (op < 2) {
            std::string copy = k;  // the table keeps its own copy
            bool fresh = ref.emplace(k, data).second;
            ASSERT_EQ(DST_symbol_insert(table, copy.c_str(), data), fresh ? 1 : 0);
            copy.assign(copy.size(), '?');
        } else if (op == 2) {
            void *got = nullptr;
            auto it = ref.find(k);
            ASSERT_EQ(DST_symbol_delete(table, k.c_str(), &got), it != ref.end() ? 1 : 0);
            if (it != ref.end()) {
                ASSERT_EQ(got, it->second);
                ref.erase(it);
            }
        } else {
            auto it = ref.find(k);
            ASSERT_EQ(DST_symbol_find(table, k.c_str()), it == ref.end() ? nullptr : it->second);
        }
        if (i % 10000 == 0) expect_same(table, ref, key_of);
    }
    expect_same(table, ref, key_of);
    DST_sym_set_data(DST_symbol_lookup(table, ref.begin()->first.c_str()), nullptr);
    EXPECT_EQ(DST_symbol_find(table, ref.begin()->first.c_str()), nullptr);
    EXPECT_EQ(DST_symbol_insert(table, nullptr, nullptr), -1);
    EXPECT_EQ(DST_symbol_find(table, nullptr), nullptr);
    DST_symbol_free(table);
    EXPECT_EQ(DST_symbol_new(7, 0), nullptr);
}

TEST(Symbol, PointerKeysAgainstUnorderedMap) {
    DST_SYMBOL *table = DST_symbol_new(DST_SYMBOL_POINTER, 1000);
    std::unordered_map<const void *, void *> ref;
    std::mt19937 rng(8);
    for (int i = 0; i < 40000; ++i) {
        const void *k = as_pointer((rng() % 5000) * 16);  // aligned addresses, null among them
        void *data = as_pointer(rng());
        if (rng() % 3) {
            bool fresh = ref.emplace(k, data).second;
            ASSERT_EQ(DST_symbol_insert(table, k, data), fresh ? 1 : 0);
        } else {
            ASSERT_EQ(DST_symbol_delete(table, k, nullptr), ref.erase(k) ? 1 : 0);
        }
    }
    expect_same(table, ref, [](const void *p) { return p; });
    DST_symbol_free(table);
}

// Failing any allocation of a run of inserts leaves exactly the entries that
// were added before it; failed growth only keeps the table smaller.
TEST(Symbol, ExhaustedMemoryOnEveryGrowthPath) {
    pxf::test::ReportCapture capture;
    std::vector<std::string> keys;
    for (int i = 0; i < 200; ++i) keys.push_back("k" + std::to_string(i));
    DST_SYMBOL *table = nullptr;
    std::set<std::string> added;
    int tolerated = 0;  // runs where only a growth failed: every insert still succeeded
    pxf::test::for_each_allocation_failure(
        [&] {
            DST_symbol_free(table);
            added.clear();
            table = DST_symbol_new(DST_SYMBOL_STRING, 0);
            if (!table) return false;
            bool all = true;
            for (auto &k : keys) {
                int r = DST_symbol_insert(table, k.c_str(), &k);
                if (r == 1) added.insert(k);
                else all = false;
            }
            if (all && pxf::fault::fired()) {
                ++tolerated;
                return false;
            }
            return all;
        },
        [&](int) {
            if (!table) return;
            ASSERT_EQ(DST_symbol_count(table), added.size());
            for (auto &k : keys) ASSERT_EQ(DST_symbol_find(table, k.c_str()), added.count(k) ? &k : nullptr);
        });
    EXPECT_EQ(DST_symbol_count(table), 200u);
    EXPECT_GE(tolerated, 3);
    DST_symbol_free(table);
}

}  // namespace
