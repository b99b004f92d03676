#include "gatecat/TextTable.h"

#include <algorithm>

namespace vostrelka {
namespace gatecat {

TextTable::TextTable(std::vector<std::string> headings, std::vector<bool> right_aligned)
    : right_aligned(std::move(right_aligned)) {
    this->right_aligned.resize(headings.size(), false);
    rows.push_back(std::move(headings));
}

void TextTable::add_row(std::vector<std::string> cells) {
    cells.resize(rows.front().size());
    rows.push_back(std::move(cells));
}

std::string TextTable::text() const {
    const size_t columns = rows.front().size();
    std::vector<size_t> widths(columns, 0);
    for (const auto& row : rows) {
        for (size_t c = 0; c < columns; c++) widths[c] = std::max(widths[c], row[c].size());
    }
    std::string out;
    for (const auto& row : rows) {
        std::string line;
        for (size_t c = 0; c < columns; c++) {
            const std::string padding(widths[c] - row[c].size(), ' ');
            if (c > 0) line += "  ";
            if (right_aligned[c]) {
                line += padding + row[c];
            } else {
                line += row[c];
                if (c + 1 < columns) line += padding;
            }
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out += line + '\n';
    }
    return out;
}

}  // namespace gatecat
}  // namespace vostrelka
