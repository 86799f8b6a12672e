#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace orvane {

// Which of the pictures a camera's driver holds ready to take: always the newest, so a capture
// thread that fell behind catches up at once instead of showing ever older pictures. The older
// ones are lost, and so are the pictures the driver's time stamps skip (a camera whose USB
// transfers failed). Plain value.
struct NewestBuffer {
    std::size_t index = 0; // of the picture to take
    int lost = 0;

    // `stamps`: the ready pictures' time stamps in microseconds, oldest first; `previous`:
    // the last picture taken, if any; `frameDuration`: seconds between pictures.
    static NewestBuffer choose(const std::vector<std::int64_t>& stamps,
                               std::optional<std::int64_t> previous, double frameDuration);
};

} // namespace orvane
