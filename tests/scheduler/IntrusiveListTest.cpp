#include <gtest/gtest.h>

#include <string>

#include "Tarvo/IntrusiveBookmarkLinkedList.h"

namespace Tarvo {
namespace {

struct Item {
  explicit Item(char v) : value(v) {}
  char value;
  ListLinkNode<Item> queueLink_;
  BookmarkListLinkNode<Item> registeredLink_;
};

using Queue = List<Item, ListLinkNode<Item>, &Item::queueLink_>;
using Registry = BookmarkList<Item, BookmarkListLinkNode<Item>, &Item::registeredLink_>;

template <typename L>
std::string values(const L& list) {
  std::string out;
  for (Item* i = list.front(); i; i = list.next(*i)) {
    out += i->value;
  }
  return out;
}

TEST(IntrusiveListTest, DestroyedElementsUnlinkThemselvesAndDoubleLinkingAborts) {
  Item a('a'), b('b');
  Queue q, other;
  q.pushBack(a);
  {
    Item d('d');
    q.pushBack(d);
    q.pushBack(b);
    EXPECT_EQ(values(q), "adb");
  }
  Queue::unlink(a);
  EXPECT_EQ(values(q), "b");
  EXPECT_DEATH(other.pushBack(b), "!\\( element\\.\\*ptrToLinkNode \\)\\.isLinked\\(\\)");
}

TEST(BookmarkListTest, BookmarkHoldsItsPlaceAndTraversalsSkipIt) {
  Registry r;
  Registry::Bookmark mark;
  mark.insertBefore(r.begin());
  EXPECT_FALSE(r.empty());
  EXPECT_EQ(r.front(), nullptr);

  Item a('a'), b('b'), c('c');
  r.pushFront(c);
  r.pushFront(b);
  r.pushFront(a);
  mark.unlink();
  mark.insertBefore(Registry::ConstIterator(&r, b.registeredLink_.hook_.this_ptr()));
  EXPECT_EQ(values(r), "abc");
  b.registeredLink_.unlink();
  EXPECT_EQ(r.elementAfter(mark), &c);
  EXPECT_DEATH(mark.insertBefore(r.begin()), "!link\\.isLinked\\(\\)");
}

}  // namespace
}  // namespace Tarvo
