// A list through its entries, for records that are found by walking and that leave from the middle: an entry has
// members `next` and `previous` of its own type, which are the list's while it is in it.
//
// A list owns nothing and allocates nothing. It is constant-initialised and has no destructor, so that it works before
// main() and after it. Whoever holds the lock that guards it may use it.
#pragma once

namespace oriel {

template <typename Entry>
class List {
public:
    class Iterator {
    public:
        explicit Iterator(Entry* entry) : m_entry(entry) {}
        Entry& operator*() const { return *m_entry; }
        Iterator& operator++() {
            m_entry = m_entry->next;
            return *this;
        }
        bool operator==(const Iterator&) const = default;

    private:
        Entry* m_entry;
    };

    Entry* First() const { return m_first; }
    bool IsEmpty() const { return m_first == nullptr; }
    // An entry must not be removed while the loop is at it.
    Iterator begin() const { return Iterator(m_first); }
    Iterator end() const { return Iterator(nullptr); }

    // The first entry that is wanted; null for none.
    template <typename Wanted>
    Entry* Find(Wanted wanted) const {
        Entry* entry = m_first;
        while (entry != nullptr && !wanted(*entry))
            entry = entry->next;
        return entry;
    }

    // Puts an entry that is in no list to the front.
    void Add(Entry& entry) {
        entry.previous = nullptr;
        entry.next = m_first;
        if (m_first != nullptr) m_first->previous = &entry;
        m_first = &entry;
    }
    void Remove(Entry& entry) {
        (entry.previous != nullptr ? entry.previous->next : m_first) = entry.next;
        if (entry.next != nullptr) entry.next->previous = entry.previous;
    }
    // In a fork child: what is in it is the parent's.
    void Forget() { m_first = nullptr; }

private:
    Entry* m_first = nullptr;
};

} // namespace oriel
