#include <gtest/gtest.h>

#include <vector>

#include "Tarvo/IntrusiveBookmarkLinkedList.h"

namespace Tarvo {
namespace {

struct Item {
  explicit Item(int v) : value(v) {}
  int value;
  ListLinkNode<Item> queueLink_;
  BookmarkListLinkNode<Item> registeredLink_;
};

using Queue = List<Item, ListLinkNode<Item>, &Item::queueLink_>;
using Registry = BookmarkList<Item, BookmarkListLinkNode<Item>, &Item::registeredLink_>;

template <typename L>
std::vector<int> values(const L& list) {
  std::vector<int> out;
  for (Item* i = list.front(); i; i = list.next(*i)) {
    out.push_back(i->value);
  }
  return out;
}

TEST(IntrusiveListTest, SpliceKeepsOrderAndDestroyedElementsUnlinkThemselves) {
  Item a(1), b(2), c(3);
  Queue q, other;
  q.pushBack(a);
  q.pushBack(b);
  other.pushBack(c);
  q.spliceFront(other);
  EXPECT_TRUE(other.empty());
  {
    Item d(4);
    q.pushBack(d);
    EXPECT_EQ(values(q), (std::vector<int>{3, 1, 2, 4}));
  }
  Queue::unlink(a);
  EXPECT_EQ(values(q), (std::vector<int>{3, 2}));
  EXPECT_DEATH(other.pushBack(b), "!\\( element\\.\\*ptrToLinkNode \\)\\.isLinked\\(\\)");
}

TEST(BookmarkListTest, BookmarkHoldsItsPlaceAndTraversalsSkipIt) {
  Registry r;
  Registry::Bookmark mark;
  mark.insertBefore(r.begin());
  EXPECT_FALSE(r.empty());
  EXPECT_EQ(r.front(), nullptr);

  Item a(1), b(2), c(3);
  r.pushFront(c);
  r.pushFront(b);
  r.pushFront(a);
  EXPECT_EQ(values(r), (std::vector<int>{1, 2, 3}));

  mark.unlink();
  mark.insertBefore(Registry::ConstIterator(&r, b.registeredLink_.hook_.this_ptr()));
  EXPECT_EQ(values(r), (std::vector<int>{1, 2, 3}));
  b.registeredLink_.unlink();
  EXPECT_EQ(r.elementAfter(mark), &c);
  EXPECT_DEATH(mark.insertBefore(r.begin()), "!link\\.isLinked\\(\\)");
}

}  // namespace
}  // namespace Tarvo
