// A table that commands fill: records on the heap, in the order of their arrival, owned by the
// list.
//
// All zeros are an empty list, so the state block's zeroing makes one (and forgets what it held).
// Only a release ends a record: whoever releases one has first emptied every link that names it, or
// does so in the callback that hears of it.
//
// A record has a member `next` that is the list's alone.
#pragma once

#include "core/text/text.h"

#include <cstdint>
#include <string_view>

template <typename Record>
struct record_list {
    Record *head;
    Record *tail;
    uint32_t count;

    class iterator {
    public:
        explicit iterator(Record *at) : at_(at) {}
        Record &operator*() const { return *at_; }
        iterator &operator++() {
            at_ = at_->next;
            return *this;
        }
        bool operator==(const iterator &) const = default;

    private:
        Record *at_;
    };
    iterator begin() const { return iterator(head); }
    iterator end() const { return iterator(nullptr); }
    bool empty() const { return head == nullptr; }

    void append(Record *record) {
        record->next = nullptr;
        (tail != nullptr ? tail->next : head) = record;
        tail = record;
        ++count;
    }

    // Puts the record in front of the first one for which `before` holds, or at the end.
    template <typename Before>
    void insert(Record *record, Before before) {
        Record **link = &head;
        while (*link != nullptr && !before(**link))
            link = &(*link)->next;
        if (*link == nullptr) {
            append(record);
            return;
        }
        record->next = *link;
        *link = record;
        ++count;
    }

    // The first record for which `wanted` holds, or none.
    template <typename Wanted>
    Record *find(Wanted wanted) const {
        for (Record &record : *this) {
            if (wanted(record))
                return &record;
        }
        return nullptr;
    }

    // Releases the first record for which `wanted` holds. Returns whether there was one.
    template <typename Wanted>
    bool release_first(Wanted wanted) {
        Record *previous = nullptr;
        for (Record *record = head; record != nullptr; previous = record, record = record->next) {
            if (!wanted(*record))
                continue;
            (previous != nullptr ? previous->next : head) = record->next;
            if (tail == record)
                tail = previous;
            --count;
            delete record;
            return true;
        }
        return false;
    }

    void release_all() {
        while (head != nullptr) {
            Record *next = head->next;
            delete head;
            head = next;
        }
        *this = {};
    }
};

// The policy of a uuid, compared without regard to letter case: the first that arrived.
template <typename Policy>
Policy *find_by_uuid(const record_list<Policy> &policies, std::string_view uuid) {
    return policies.find([uuid](const Policy &policy) {
        return equals_ignoring_case(field_text(policy.uuid), uuid);
    });
}
