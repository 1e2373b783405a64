// Builds resource-file bytes by hand, so that tests state the layout they expect.
#pragma once

#include <cstdint>
#include <string>

namespace pxf::test {

inline std::string be16(uint32_t v) { return {char(v >> 8), char(v)}; }
inline std::string be32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
// A slot: the value in the first four bytes, zero in the other four.
inline std::string slot(uint32_t v) { return be32(v) + std::string(4, '\0'); }
inline std::string header(uint32_t types, uint32_t type_table, uint32_t version = 1) {
    return slot(version) + slot(types) + slot(type_table);
}
inline std::string resource_entry(const std::string &name, uint32_t offset, uint32_t size) {
    return be16(static_cast<uint32_t>(name.size())) + name + slot(offset) + slot(size);
}
inline std::string type_entry(const char code[5], uint32_t count, uint32_t table) {
    return std::string(code, 4) + std::string(4, '\0') + slot(count) + slot(table);
}

}  // namespace pxf::test
