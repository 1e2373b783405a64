// Linked lists with their one iterator.
#include <gtest/gtest.h>

#include <vector>

#include <pxf/dst.h>

namespace {

struct Item {
    Item *next;
    int key;
    int tag;
};

std::vector<int> tags(DST_LL *list) {
    std::vector<int> out;
    for (auto *i = static_cast<Item *>(DST_ll_first(list)); i; i = i->next) out.push_back(i->tag);
    return out;
}

int by_key(void *existing, void *element, int) {
    return static_cast<Item *>(existing)->key - static_cast<Item *>(element)->key;
}

TEST(List, AddAndRemoveAtBothEndsAndInTheMiddle) {
    DST_LL list;
    DST_ll_init(&list);
    Item a{nullptr, 0, 1}, b{nullptr, 0, 2}, c{nullptr, 0, 3}, stranger{nullptr, 0, 9};
    EXPECT_EQ(DST_ll_addt(&list, &a), nullptr);
    EXPECT_EQ(DST_ll_addt(&list, &b), &a);
    EXPECT_EQ(DST_ll_addh(&list, &c), &a);
    EXPECT_EQ(tags(&list), (std::vector<int>{3, 1, 2}));
    EXPECT_EQ(DST_ll_rem(&list, &stranger), nullptr);
    EXPECT_EQ(DST_ll_rem(&list, &b), &b);  // the tail
    EXPECT_EQ(DST_ll_last(&list), &a);
    DST_ll_addt(&list, &b);  // the new tail links correctly after removal
    EXPECT_EQ(DST_ll_rem(&list, &a), &a);  // the middle
    EXPECT_EQ(tags(&list), (std::vector<int>{3, 2}));
    EXPECT_EQ(DST_ll_length(&list), 2u);
    EXPECT_EQ(DST_ll_remt(&list), &b);
    EXPECT_EQ(DST_ll_remh(&list), &c);
    EXPECT_EQ(DST_ll_remh(&list), nullptr);
    EXPECT_EQ(DST_ll_remt(&list), nullptr);
    EXPECT_TRUE(list.head == nullptr && list.tail == nullptr && list.count == 0);
    DST_LL *allocated = DST_ll_new();
    ASSERT_NE(allocated, nullptr);
    DST_ll_free(allocated);
}

TEST(List, OrderedInsertPutsNewcomerFirstAmongEquals) {
    DST_LL list;
    DST_ll_init(&list);
    Item x{nullptr, 5, 1}, y{nullptr, 3, 2}, z{nullptr, 5, 3}, w{nullptr, 9, 4}, dup{nullptr, 3, 5};
    for (Item *i : {&x, &y, &z, &w}) EXPECT_EQ(DST_ll_addo(&list, i, by_key, 1), 1);
    EXPECT_EQ(tags(&list), (std::vector<int>{2, 3, 1, 4}));
    EXPECT_EQ(DST_ll_addo(&list, &dup, by_key, 0), 0);
    EXPECT_EQ(tags(&list), (std::vector<int>{2, 3, 1, 4}));
    EXPECT_EQ(DST_ll_last(&list), &w);
    EXPECT_EQ(DST_ll_length(&list), 4u);
}

TEST(List, IteratorStopsAndStaysExhausted) {
    DST_LL list;
    DST_ll_init(&list);
    Item a{nullptr, 0, 1}, b{nullptr, 0, 2};
    DST_ll_addt(&list, &a);
    DST_ll_addt(&list, &b);
    DST_ll_initl(&list);
    EXPECT_EQ(DST_ll_nextl(&list), &a);
    void *saved = DST_ll_getl(&list);
    EXPECT_EQ(DST_ll_nextl(&list), &b);
    EXPECT_EQ(DST_ll_nextl(&list), nullptr);
    EXPECT_EQ(DST_ll_nextl(&list), nullptr);
    DST_ll_setl(&list, saved);
    EXPECT_EQ(DST_ll_nextl(&list), &b);
}

TEST(List, TraverseAndFinddataStopRules) {
    DST_LL list;
    DST_ll_init(&list);
    auto count = [](void *, void *data) {
        ++*static_cast<int *>(data);
        return 0;
    };
    int visits = 0;
    EXPECT_EQ(DST_ll_traverse(&list, count, &visits, 0), 0);
    Item a{nullptr, 1, 1}, b{nullptr, 2, 2}, c{nullptr, 3, 3};
    DST_ll_addt(&list, &a);
    DST_ll_addt(&list, &b);
    DST_ll_addt(&list, &c);
    EXPECT_EQ(DST_ll_traverse(&list, count, &visits, 0), 1);
    EXPECT_EQ(visits, 3);
    EXPECT_EQ(DST_ll_getl(&list), nullptr);  // a full walk leaves the iterator null

    auto key_is = [](void *element, void *data) {
        return static_cast<Item *>(element)->key == *static_cast<int *>(data) ? 0 : 1;
    };
    int wanted = 2;
    EXPECT_EQ(DST_ll_finddata(&list, key_is, &wanted), &b);
    EXPECT_EQ(DST_ll_getl(&list), &b);
    wanted = 7;
    EXPECT_EQ(DST_ll_finddata(&list, key_is, &wanted), nullptr);
}

}  // namespace
