#pragma once
// A table for people: columns as wide as their widest cell, two blanks
// apart, numbers right-aligned and text left-aligned. The last column is not
// padded, so long descriptions do not push trailing blanks.
#include <string>
#include <vector>

namespace vostrelka {
namespace gatecat {

class TextTable {
public:
    // `headings` fixes the number of columns; `right_aligned` says which.
    TextTable(std::vector<std::string> headings, std::vector<bool> right_aligned);

    // A row with fewer cells than columns is filled with blanks.
    void add_row(std::vector<std::string> cells);

    // Every line ends in a newline; the headings form the first line.
    std::string text() const;

private:
    std::vector<std::vector<std::string>> rows;
    std::vector<bool> right_aligned;
};

}  // namespace gatecat
}  // namespace vostrelka
