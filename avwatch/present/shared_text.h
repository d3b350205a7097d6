// Values of which many are the same, each kept once: flows share clients, applications, reasons.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace avwatch {

// A value of a pool's, which outlives it. Two of one pool are the same value where they are equal.
template <typename Value>
class shared {
public:
    struct uses {
        mutable uint32_t count = 0;
    };
    using entry = std::pair<const Value, uses>; // of a pool's table

    shared() = default; // an empty value, of any pool
    explicit shared(const entry &held) : entry_(&held) { ++held.second.count; }
    shared(const shared &other) : entry_(other.entry_) {
        if (entry_ != nullptr)
            ++entry_->second.count;
    }
    shared(shared &&other) noexcept : entry_(std::exchange(other.entry_, nullptr)) {}
    shared &operator=(shared other) noexcept {
        std::swap(entry_, other.entry_);
        return *this;
    }
    ~shared() {
        if (entry_ != nullptr)
            --entry_->second.count;
    }

    const Value &value() const {
        static const Value nothing;
        return entry_ != nullptr ? entry_->first : nothing;
    }
    bool empty() const { return entry_ == nullptr; }
    bool operator==(const shared &other) const { return entry_ == other.entry_; }
    size_t hash() const { return std::hash<const void *>()(entry_); }

private:
    const entry *entry_ = nullptr;
};

class shared_text : public shared<std::string> {
public:
    using shared::shared;
    const std::string &text() const { return value(); }
};

// With this run's secret: texts are strangers'.
uint64_t hash_of(std::string_view text);

class text_pool {
public:
    explicit text_pool(size_t bytes_max) : bytes_max_(bytes_max) {}
    text_pool(const text_pool &) = delete;
    text_pool &operator=(const text_pool &) = delete;

    // Once the pool is full a text that it hasn't is "...".
    shared_text share(std::string_view text);
    // Nothing where the pool hasn't the text.
    std::optional<shared_text> find(std::string_view text) const;

    void sweep(); // gives up what nobody holds
    size_t bytes() const { return bytes_; }

private:
    struct hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const {
            return static_cast<size_t>(hash_of(text));
        }
    };

    const size_t bytes_max_;
    size_t bytes_ = 0;
    std::unordered_map<std::string, shared_text::uses, hash, std::equal_to<>> entries_;
};

// Without a bound: for what configurations make, not strangers.
template <typename Value, typename Hash>
class value_pool {
public:
    shared<Value> share(const Value &value) {
        return shared<Value>(*entries_.try_emplace(value).first);
    }
    void sweep() {
        std::erase_if(entries_, [](const auto &entry) { return entry.second.count == 0; });
    }

private:
    std::unordered_map<Value, typename shared<Value>::uses, Hash> entries_;
};

} // namespace avwatch
