// Intrusive doubly linked lists for tasks: run queues and registration lists.
//
// An element carries its own link node (a member), so linking and unlinking never allocate.
// Links are auto-unlinking: an element destroyed while linked takes itself out of its list.
// The lists keep no element count. A list header must not be copied or moved while it holds
// elements. Everything here belongs to one thread; nothing locks.
//
// Misuse ends the process: linking an element whose node is already linked fails the check
// "!( element.*ptrToLinkNode ).isLinked()".
#pragma once

#include <boost/intrusive/circular_list_algorithms.hpp>
#include <boost/intrusive/list.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include "Tarvo/Exception.h"

namespace Tarvo {

namespace IntrusiveList {
using Hook =
    boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;
using NodeTraits = boost::intrusive::list_node_traits<void*>;
using NodeAlgorithms = boost::intrusive::circular_list_algorithms<NodeTraits>;
using NodePtr = NodeTraits::node_ptr;
using ConstNodePtr = NodeTraits::const_node_ptr;

inline Hook* hookOf(NodePtr node) noexcept {
  return static_cast<Hook*>(node);
}
inline const Hook* hookOf(ConstNodePtr node) noexcept {
  return static_cast<const Hook*>(node);
}

// Maps an element to the hook inside its link node and back, for boost::intrusive.
template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
struct HookAccess {
  using hook_type = Hook;
  using hook_ptr = Hook*;
  using const_hook_ptr = const Hook*;
  using value_type = Element;
  using pointer = Element*;
  using const_pointer = const Element*;

  static hook_ptr to_hook_ptr(value_type& value) { return &(value.*ptrToLinkNode).hook_; }
  static const_hook_ptr to_hook_ptr(const value_type& value) {
    return &(value.*ptrToLinkNode).hook_;
  }
  static LinkNode* toLinkNode(hook_ptr hook) {
    return boost::intrusive::get_parent_from_member<LinkNode>(hook, &LinkNode::hook_);
  }
  static const LinkNode* toLinkNode(const_hook_ptr hook) {
    return boost::intrusive::get_parent_from_member<LinkNode>(hook, &LinkNode::hook_);
  }
  static pointer to_value_ptr(hook_ptr hook) {
    return boost::intrusive::get_parent_from_member<Element>(toLinkNode(hook), ptrToLinkNode);
  }
  static const_pointer to_value_ptr(const_hook_ptr hook) {
    return boost::intrusive::get_parent_from_member<Element>(toLinkNode(hook), ptrToLinkNode);
  }
};
}  // namespace IntrusiveList

// The link an element carries to sit on one plain List (for a task: its run queue).
template <typename Element>
class ListLinkNode {
 public:
  ListLinkNode() = default;
  // A copy starts unlinked: links belong to the object, not to its value.
  ListLinkNode(const ListLinkNode&) {}
  ListLinkNode& operator=(const ListLinkNode&) { return *this; }

  // Whether the element is on a list.
  bool isLinked() const noexcept { return hook_.is_linked(); }
  // Takes the element out of whatever list holds it; constant time, no list needed.
  void unlink() noexcept { hook_.unlink(); }

  // The hook that links the node (used by the list).
  IntrusiveList::Hook hook_;
};

// The common base of List and BookmarkList: a circular list header with a member hook.
// Traversals go through front()/next(), which step past nodes for which isBookmark() holds.
template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
class ListImpl {
  using Access = IntrusiveList::HookAccess<Element, LinkNode, ptrToLinkNode>;
  using Impl = boost::intrusive::list<Element, boost::intrusive::function_hook<Access>,
                                      boost::intrusive::constant_time_size<false>>;

 public:
  // A position in the list: an element's node, a bookmark's node or the end.
  class ConstIterator {
   public:
    // The position of `node` in `list`; whether it is the end.
    ConstIterator(const ListImpl* list, IntrusiveList::ConstNodePtr node)
        : list_(list), node_(node) {}
    bool atEnd() const { return node_ == list_->header(); }
    // The element here, or null at the end or on a bookmark.
    const Element* element() const {
      if (atEnd() || list_->isBookmark(*Access::toLinkNode(IntrusiveList::hookOf(node_)))) {
        return nullptr;
      }
      return Access::to_value_ptr(IntrusiveList::hookOf(node_));
    }
    IntrusiveList::ConstNodePtr node() const { return node_; }

   private:
    const ListImpl* list_;
    IntrusiveList::ConstNodePtr node_;
  };

  ListImpl() = default;
  ListImpl(const ListImpl&) = delete;
  ListImpl& operator=(const ListImpl&) = delete;
  // Whether a node is a bookmark; never in a plain list. Declared before the destructor: its
  // virtual slot comes first, as in every list class.
  virtual bool isBookmark(const LinkNode&) const { return false; }
  virtual ~ListImpl() = default;

  // Whether the list holds no node.
  bool empty() const { return list_.empty(); }

  // Links `element` at the back / front; it must not be linked yet. unlink() takes an element
  // off its list.
  void pushBack(Element& element) {
    beingLinked(element);
    list_.push_back(element);
  }
  void pushFront(Element& element) {
    beingLinked(element);
    list_.push_front(element);
  }
  static void unlink(Element& element) noexcept { (element.*ptrToLinkNode).unlink(); }

  // Moves every node of `other` to the front / back of this list, keeping their order.
  void spliceFront(ListImpl& other) { list_.splice(list_.begin(), other.list_); }
  void spliceBack(ListImpl& other) { list_.splice(list_.end(), other.list_); }

  // The first position and the end, for walking bookmarks and elements alike.
  ConstIterator begin() const {
    return ConstIterator(this, IntrusiveList::NodeTraits::get_next(header()));
  }
  ConstIterator end() const { return ConstIterator(this, header()); }

  // The first element, bookmarks skipped; null when there is none.
  Element* front() const { return firstFrom(IntrusiveList::NodeTraits::get_next(header())); }
  // The element after `element`, bookmarks skipped; null at the end.
  Element* next(const Element& element) const {
    return firstFrom(
        IntrusiveList::NodeTraits::get_next((element.*ptrToLinkNode).hook_.this_ptr()));
  }

 protected:
  Element* firstFrom(IntrusiveList::NodePtr node) const {
    for (; node != header(); node = IntrusiveList::NodeTraits::get_next(node)) {
      if (!isBookmark(*Access::toLinkNode(IntrusiveList::hookOf(node)))) {
        return Access::to_value_ptr(IntrusiveList::hookOf(node));
      }
    }
    return nullptr;
  }
  IntrusiveList::ConstNodePtr header() const {
    return const_cast<Impl&>(list_).end().pointed_node();
  }

 private:
  static void beingLinked(Element& element) {
    check(!(element.*ptrToLinkNode).isLinked(), "!( element.*ptrToLinkNode ).isLinked()");
  }
  Impl list_;
};

// A plain list: never holds bookmarks. The type of every run queue.
template <typename Element, typename LinkNode, LinkNode Element::*ptrToLinkNode>
class List final : public ListImpl<Element, LinkNode, ptrToLinkNode> {
 public:
  // The first element; without bookmarks the first node is always an element.
  Element* front() const {
    auto first = IntrusiveList::NodeTraits::get_next(this->header());
    if (first == this->header()) {
      return nullptr;
    }
    return IntrusiveList::HookAccess<Element, LinkNode, ptrToLinkNode>::to_value_ptr(
        IntrusiveList::hookOf(first));
  }
};

}  // namespace Tarvo
