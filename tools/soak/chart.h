#pragma once

#include <string>
#include <vector>

/// One figure over time as a small chart of text: rows of columns that grow from the smallest value to the
/// largest. `marks` are drawn under it, one character for each value.
std::string MakeChart(const std::string& title, const std::vector<size_t>& values, const std::string& marks);
