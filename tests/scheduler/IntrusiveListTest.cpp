#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "Tarvo/IntrusiveBookmarkLinkedList.h"
#include "Tarvo/IntrusiveLinkedListBase.h"

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

TEST(IntrusiveListTest, AppendSpliceAndAutoUnlinkKeepOrder) {
  Item a(1), b(2), c(3);
  Queue q, other;
  q.pushBack(a);
  q.pushBack(b);
  other.pushBack(c);
  q.spliceFront(other);
  EXPECT_TRUE(other.empty());
  EXPECT_EQ(values(q), (std::vector<int>{3, 1, 2}));
  {
    Item d(4);
    q.pushBack(d);
    EXPECT_EQ(values(q), (std::vector<int>{3, 1, 2, 4}));
  }
  EXPECT_EQ(values(q), (std::vector<int>{3, 1, 2}));
  Queue::unlink(a);
  EXPECT_FALSE(a.queueLink_.isLinked());
  EXPECT_EQ(values(q), (std::vector<int>{3, 2}));
  other.spliceBack(q);
  EXPECT_EQ(values(other), (std::vector<int>{3, 2}));
  EXPECT_EQ(q.front(), nullptr);
}

TEST(IntrusiveListDeathTest, LinkingALinkedElementAborts) {
  Item a(1);
  Queue q1, q2;
  q1.pushBack(a);
  EXPECT_DEATH(q2.pushBack(a), "!\\( element\\.\\*ptrToLinkNode \\)\\.isLinked\\(\\)");
}

TEST(BookmarkListTest, TraversalsSkipBookmarks) {
  Registry r;
  Registry::Bookmark only;
  only.insertBefore(r.begin());
  EXPECT_FALSE(r.empty());
  EXPECT_EQ(r.front(), nullptr);
  EXPECT_EQ(r.elementAfter(only), nullptr);
  EXPECT_EQ(r.begin().element(), nullptr);

  Item a(1), b(2), c(3);
  r.pushFront(c);
  r.pushFront(b);
  r.pushFront(a);
  EXPECT_EQ(values(r), (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(only.isLinked());

  // A bookmark before b survives b's removal and resumes at c.
  only.unlink();
  Registry::ConstIterator atB(&r, b.registeredLink_.hook_.this_ptr());
  only.insertBefore(atB);
  EXPECT_EQ(values(r), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(r.elementAfter(only), &b);
  b.registeredLink_.unlink();
  EXPECT_EQ(r.elementAfter(only), &c);
  EXPECT_EQ(r.next(a), &c);
  EXPECT_DEATH(only.insertBefore(r.begin()), "!link\\.isLinked\\(\\)");
}

}  // namespace
}  // namespace Tarvo
