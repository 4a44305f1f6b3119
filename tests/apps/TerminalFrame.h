#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace vorrel::test {

/// What stands on a terminal after it has taken a text: enough of one for a program that goes up,
/// clears and colours. UTF-8; the screen grows downwards without end.
class TerminalFrame {
public:
    void Take(const std::string& text) {
        for (std::size_t at = 0; at < text.size();) {
            if (text[at] == '\x1b') {
                at = TakeSequence(text, at);
            } else if (text[at] == '\r') {
                column = 0;
                ++at;
            } else if (text[at] == '\n') {
                ++row;
                column = 0;  // the terminal's driver puts a return before it
                ++at;
            } else {
                std::size_t next = at + 1;
                while (next < text.size() &&
                       (static_cast<unsigned char>(text[next]) & 0xC0U) == 0x80) {
                    ++next;
                }
                Put(text.substr(at, next - at));
                at = next;
            }
        }
    }

    /// Lines without blanks at their ends.
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        for (const std::vector<std::string>& cells : rows) {
            std::string line;
            for (const std::string& cell : cells) {
                line += cell.empty() ? " " : cell;
            }
            line.erase(std::min(line.find_last_not_of(' ') + 1, line.size()));
            lines.push_back(line);
        }
        while (!lines.empty() && lines.back().empty()) {
            lines.pop_back();
        }
        return lines;
    }
    std::string Text() const {
        std::string text;
        for (const std::string& line : Lines()) {
            text += line + "\n";
        }
        return text;
    }
    /// The widest line that was ever drawn, in columns.
    std::size_t Widest() const { return widest; }
    std::size_t Rows() const { return rows.size(); }
    /// Sequences that it does not know.
    const std::vector<std::string>& Unknown() const { return unknown; }

private:
    void Put(const std::string& character) {
        rows.resize(std::max(rows.size(), row + 1));
        rows[row].resize(std::max(rows[row].size(), column + 1));
        rows[row][column++] = character;
        widest = std::max(widest, column);
    }
    std::size_t TakeSequence(const std::string& text, std::size_t at) {
        std::size_t end = at + 2;
        while (end < text.size() && (text[end] < '@' || text[end] > '~')) {
            ++end;
        }
        if (end >= text.size()) {
            return end;  // its end has not come yet
        }
        const std::string number = text.substr(at + 2, end - at - 2);
        const std::size_t count =
            number.empty() || number.find_first_not_of("0123456789") != std::string::npos
                ? 1
                : std::stoul(number);
        switch (text[end]) {
            case 'A':
                row -= std::min(row, count);
                break;
            case 'K':
                if (row < rows.size()) {
                    rows[row].resize(std::min(rows[row].size(), column));
                }
                break;
            case 'J':
                if (row < rows.size()) {
                    rows[row].resize(std::min(rows[row].size(), column));
                    rows.resize(row + 1);
                }
                break;
            case 'm':
                break;
            default:
                unknown.push_back(text.substr(at, end + 1 - at));
        }
        return end + 1;
    }

    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> unknown;
    std::size_t row = 0, column = 0, widest = 0;
};

}  // namespace vorrel::test
