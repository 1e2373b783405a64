// --crop: a rectangle of the input, read once through region access.
#include <algorithm>
#include <cstdio>
#include <vector>

#include <pxf/frames.h>

#include "tool.h"

namespace pxftool {

namespace {

class CropSource : public RowSource {
public:
    CropSource(FileSource &source, const Crop &crop) : source_(source) {
        const PXF_BOUNDS &w = source.desc().window;
        RCT_RECT rect = {w.left + crop.x, w.bottom + crop.y, w.left + crop.x + crop.width - 1,
                         w.bottom + crop.y + crop.height - 1};
        int rows = crop.height > 0 ? crop.height : 1;
        std::vector<void **> pointers;
        for (int r = 0; r < rows; ++r) {
            held_.emplace_back(source.layout(), source.layout().width);
            pointers.push_back(held_.back().rows());
        }
        take_report();
        int got = PXF_get_region(source.image(), &rect, pointers.data());
        if (got < 0) fail_with_report("crop", "cannot read the rectangle");
        if (got == 0) throw Failure("--crop: the rectangle lies outside the image");
        // The rectangle is a new image with its window at the origin: most
        // formats have no place for a window's offset.
        rect_ = {0, 0, rect.xmax - rect.xmin, got - 1};  // in the new image's coordinates
        desc_ = source.desc();
        desc_.window = {0, rect.xmax - rect.xmin, 0, got - 1};
        PXF_BOUNDS &a = desc_.active_window;
        a = {std::max(a.left, rect.xmin) - rect.xmin, std::min(a.right, rect.xmax) - rect.xmin,
             std::max(a.bottom, rect.ymin) - rect.ymin, std::min(a.top, rect.ymax) - rect.ymin};
        if (a.left > a.right || a.bottom > a.top) a = desc_.window;
        layout_ = source.layout();
        layout_.width = rect.xmax - rect.xmin + 1;
        layout_.height = got;
    }
    const Layout &layout() const override { return layout_; }
    const PXF_IMAGE_DESC &desc() const override { return desc_; }
    const PXF_INFO *info() const override { return source_.info(); }
    bool bottom_up() const override { return true; }
    bool random_access() const override { return true; }
    void *const *row(int line) override { return held_[std::size_t(line - rect_.ymin)].rows(); }

private:
    FileSource &source_;
    std::vector<ChannelBuffer> held_;
    RCT_RECT rect_{};  // the rows held, in the new image's coordinates
    PXF_IMAGE_DESC desc_{};
    Layout layout_;
};

}  // namespace

Crop parse_crop(const std::string &text) {
    Crop c;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%d,%d,%d,%d%c", &c.x, &c.y, &c.width, &c.height, &tail) != 4 || c.width < 1 ||
        c.height < 1 || c.x < 0 || c.y < 0)
        throw UsageError("--crop: expected X,Y,W,H with W and H at least 1, got \"" + text + "\"");
    c.set = true;
    return c;
}

void write_cropped(FileSource &source, const Crop &crop, const std::string &path, const WriteOptions &options) {
    CropSource cropped(source, crop);
    write_image(cropped, path, options, nullptr);
}

}  // namespace pxftool
