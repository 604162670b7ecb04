// A list that can hold bookmarks: link nodes that belong to no element and remember a
// position while the elements around them are unlinked or destroyed. Every element
// traversal (front(), next()) steps past bookmarks. A scheduler's registration list is one.
//
// Same rules as IntrusiveLinkedListBase.h: one thread, no allocation, auto-unlinking nodes.
// Placing a bookmark that is already placed ends the process with "!link.isLinked()".
#pragma once

#include <cstdint>

#include "Tarvo/IntrusiveLinkedListBase.h"

namespace Tarvo {

// The link of an element on a BookmarkList: the hook and a kind word (1 marks a bookmark).
template <typename Element>
class BookmarkListLinkNode {
 public:
  // What a node is: a bookmark, or the link of an element.
  static constexpr uint32_t kindBookmark = 1;
  static constexpr uint32_t kindElement = 0;

  // A node of that kind, unlinked.
  explicit BookmarkListLinkNode(uint32_t kind = kindElement) : kind_(kind) {}
  // A copy starts unlinked and keeps the kind.
  BookmarkListLinkNode(const BookmarkListLinkNode& other) : kind_(other.kind_) {}
  BookmarkListLinkNode& operator=(const BookmarkListLinkNode&) { return *this; }

  // Whether the node is on a list; taking it off; what it is.
  bool isLinked() const noexcept { return hook_.is_linked(); }
  void unlink() noexcept { hook_.unlink(); }
  uint32_t kind() const noexcept { return kind_; }

  // The hook that links the node (used by the list).
  IntrusiveList::Hook hook_;

 private:
  uint32_t kind_;
};

// A list that can hold bookmarks; see the top of this file.
template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
class BookmarkList final : public ListImpl<Element, LinkNode, ptrToLinkNode> {
  using Base = ListImpl<Element, LinkNode, ptrToLinkNode>;

 public:
  // A position in the list, bookmarks included.
  using ConstIterator = typename Base::ConstIterator;

  // A position marker. Unplaced when constructed; it unlinks itself when destroyed.
  class Bookmark {
   public:
    Bookmark() : link(LinkNode::kindBookmark) {}
    Bookmark(const Bookmark&) = delete;
    Bookmark& operator=(const Bookmark&) = delete;

    // Whether the bookmark is placed; taking it off its list.
    bool isLinked() const noexcept { return link.isLinked(); }
    void unlink() noexcept { link.unlink(); }
    // Places the bookmark immediately before `position` (an element, a bookmark or the end
    // of a list). The bookmark must not be placed already.
    void insertBefore(const ConstIterator& position) {
      check(!link.isLinked(), "!link.isLinked()");
      IntrusiveList::NodeAlgorithms::link_before(
          const_cast<IntrusiveList::NodePtr>(position.node()), link.hook_.this_ptr());
    }
    // The position of the bookmark itself, for traversals that resume from it.
    IntrusiveList::ConstNodePtr node() const { return link.hook_.this_ptr(); }

   private:
    LinkNode link;
  };

  // Whether `node` is a bookmark rather than an element's link.
  bool isBookmark(const LinkNode& node) const override {
    return node.kind() == LinkNode::kindBookmark;
  }

  // The first element after a placed bookmark; null when none follows.
  Element* elementAfter(const Bookmark& bookmark) const {
    return this->firstFrom(IntrusiveList::NodeTraits::get_next(bookmark.node()));
  }
};

}  // namespace Tarvo
