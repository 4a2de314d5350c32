#pragma once
// An intrusive ring: the object carries its own two links, so putting it on
// a list or taking it off allocates nothing and cannot fail. The ring's
// anchor is a plain LRUList<T> held by the owner of the list; its next link
// is the head (most recently used) and its previous link the tail.
template <typename T>
class LRUList {
public:
    // An element or anchor starts unlinked, that is, a ring of itself.
    LRUList() : lru_prev(this), lru_next(this) {}
    LRUList(const LRUList&) = delete;
    LRUList& operator=(const LRUList&) = delete;
    ~LRUList() { unlink(); }

    bool linked() const { return lru_next != this; }

    // Takes this element out of whatever ring it is in; harmless when it is in none.
    void unlink() {
        lru_prev->lru_next = lru_next;
        lru_next->lru_prev = lru_prev;
        lru_prev = this;
        lru_next = this;
    }

    // Anchor operations.
    void push_head(T* element) { insert_after(this, element); }
    void push_tail(T* element) { insert_after(lru_prev, element); }
    void move_to_head(T* element) {
        if (lru_next == as_node(element)) return;
        as_node(element)->unlink();
        push_head(element);
    }
    void move_to_tail(T* element) {
        if (lru_prev == as_node(element)) return;
        as_node(element)->unlink();
        push_tail(element);
    }
    bool empty() const { return !linked(); }
    T* head() const { return element_or_null(lru_next); }
    T* tail() const { return element_or_null(lru_prev); }
    // The element behind / in front of `element` on this anchor's ring, or
    // null at the end.
    T* after(T* element) const { return element_or_null(as_node(element)->lru_next); }
    T* before(T* element) const { return element_or_null(as_node(element)->lru_prev); }

private:
    static LRUList* as_node(T* element) { return static_cast<LRUList*>(element); }
    T* element_or_null(LRUList* node) const {
        return node == this ? nullptr : static_cast<T*>(node);
    }
    static void insert_after(LRUList* position, T* element) {
        LRUList* node = as_node(element);
        node->lru_prev = position;
        node->lru_next = position->lru_next;
        position->lru_next->lru_prev = node;
        position->lru_next = node;
    }

    LRUList* lru_prev;  // towards the head
    LRUList* lru_next;  // towards the tail
};
