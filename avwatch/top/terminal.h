// The terminal: a screen of lines, and keys. It is as it was again when this object has gone.
#pragma once

#include "avwatch/top/layout.h"
#include "avwatch/top/model.h"

#include <memory>
#include <optional>
#include <vector>

namespace avwatch {

class terminal {
public:
    // Throws refused where standard input and output are no terminal, or one that nobody knows.
    terminal();
    ~terminal();
    terminal(const terminal &) = delete;
    terminal &operator=(const terminal &) = delete;

    static int descriptor();                      // of the keys
    std::optional<pressed_key> next_key();        // nothing where none has come
    bool has_ended() const { return has_ended_; } // nobody is at it any more

    screen_size size() const;
    void resize(); // as it is now
    void draw(const std::vector<screen_line> &lines);

private:
    struct handle;

    std::unique_ptr<handle> handle_;
    bool shows_utf8_;
    bool has_ended_ = false;
};

} // namespace avwatch
