// --ch R,G,B,A: a source whose channels are some of another's, in a new
// order.  Only the row pointers are rearranged; no pixel is copied.
#include <cctype>

#include "tool.h"

namespace pxftool {
namespace {

// The names of the channels of one group: colour R,G,B (Y when alone),
// matte A, auxiliary Z; numbered (C0, A1, Z2) when a group has others.
std::string channel_name(int group, int index, int count) {
    if (group == kColour) {
        if (count == 1) return "Y";
        if (count == 3) return std::string(1, "RGB"[index]);
        return "C" + std::to_string(index);
    }
    std::string letter = group == kMatte ? "A" : "Z";
    return count == 1 ? letter : letter + std::to_string(index);
}

}  // namespace

ChannelSelect::ChannelSelect(RowSource &inner, const std::string &names) : inner_(inner) {
    const Layout &from = inner.layout();
    layout_ = from;
    for (Group &g : layout_.group) g.count = 0;
    std::vector<std::pair<int, int>> picked[3];  // per target group: (source group, index)
    std::string available;
    for (std::size_t start = 0;;) {
        std::size_t comma = names.find(',', start);
        std::string name = names.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        for (char &c : name) c = char(std::toupper(static_cast<unsigned char>(c)));
        bool found = false;
        for (int g = 0; g < 3 && !found; ++g)
            for (int i = 0; i < from.group[g].count && !found; ++i)
                if (channel_name(g, i, from.group[g].count) == name) {
                    picked[g].emplace_back(g, i);
                    found = true;
                }
        if (!found) {
            for (int g = 0; g < 3; ++g)
                for (int i = 0; i < from.group[g].count; ++i)
                    available += (available.empty() ? "" : ",") + channel_name(g, i, from.group[g].count);
            throw UsageError("--ch: no channel \"" + name + "\" (the input has " + available + ")");
        }
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    int first[3] = {0, from.group[0].count, from.group[0].count + from.group[1].count};
    for (int g = 0; g < 3; ++g) {
        layout_.group[g].count = int(picked[g].size());
        for (const auto &[group, index] : picked[g]) order_.push_back(first[group] + index);
    }
    if (layout_.group[kColour].count < 1) throw UsageError("--ch: choose at least one colour channel");
    rows_.resize(order_.size());
}

void *const *ChannelSelect::row(int line) {
    void *const *from = inner_.row(line);
    for (std::size_t i = 0; i < order_.size(); ++i) rows_[i] = from[order_[i]];
    return rows_.data();
}

}  // namespace pxftool
