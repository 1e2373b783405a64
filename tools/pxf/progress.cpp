// A one-line progress bar on standard error, redrawn in place.
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "tool.h"

namespace pxftool {
namespace {
std::mutex draw_lock;
}

Progress::Progress(std::string label, bool enabled) : label_(std::move(label)), enabled_(enabled && isatty(2)) {}

Progress::~Progress() { finish(); }

void Progress::update(long done, long total) {
    if (!enabled_ || total <= 0) return;
    int percent = int(done * 100 / total);
    std::lock_guard<std::mutex> hold(draw_lock);
    if (percent == last_percent_) return;
    last_percent_ = percent;
    const int width = 30;
    int filled = percent * width / 100;
    std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%", label_.c_str(), filled, "##############################",
                 width - filled, "", percent);
    std::fflush(stderr);
    shown_ = true;
}

void Progress::finish() {
    std::lock_guard<std::mutex> hold(draw_lock);
    if (!shown_) return;
    std::fputs("\r\033[K", stderr);  // clear the bar so that messages start clean
    std::fflush(stderr);
    shown_ = false;
}

}  // namespace pxftool
