// Texts of which many are the same, each kept once: flows share clients, applications, reasons.
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

// A text of a pool's, which outlives it. Two of one pool are the same text where they are equal.
class shared_text {
public:
    shared_text() = default; // an empty text, of any pool
    shared_text(const shared_text &other) : shared_text(other.entry_) {}
    shared_text(shared_text &&other) noexcept : entry_(std::exchange(other.entry_, nullptr)) {}
    shared_text &operator=(shared_text other) noexcept {
        std::swap(entry_, other.entry_);
        return *this;
    }
    ~shared_text() {
        if (entry_ != nullptr)
            --entry_->second.count;
    }

    const std::string &text() const;
    bool empty() const { return entry_ == nullptr; }
    bool operator==(const shared_text &other) const { return entry_ == other.entry_; }
    size_t hash() const { return std::hash<const void *>()(entry_); }

private:
    friend class text_pool;
    struct uses {
        mutable uint32_t count = 0;
    };
    using entry = std::pair<const std::string, uses>;
    explicit shared_text(const entry *held) : entry_(held) {
        if (entry_ != nullptr)
            ++entry_->second.count;
    }

    const entry *entry_ = nullptr;
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

} // namespace avwatch
