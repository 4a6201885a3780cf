// Text for people: aligned columns, ages, colours where there is a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace corvid::ctl {

// Where text goes. Nothing is written wider than `width` columns, where that is not 0.
struct Screen {
  std::size_t width = 0;
  bool hasColours = false;

  // Of standard output: its terminal's, or no width and no colours where it is none.
  static Screen ofStandardOutput();
};

enum class Tone { plain, good, bad, quiet, strong };
std::string toned(std::string_view text, Tone tone, const Screen& screen);

// How many columns a terminal gives to it, about: one a character.
std::size_t columnsOf(std::string_view text);
// At most `columns` of it, the last one "…" where some is left out.
std::string cut(std::string_view text, std::size_t columns);

// "12 s", "3 min", "5 h", "2 d".
std::string age(double seconds);
// "812 B", "4.1 kB", "16.0 MB".
std::string size(double bytes);

// Rows of cells in aligned columns, two blanks apart. The last column is cut where a row is wider
// than the screen, and columns before it where that is not enough.
class Table {
 public:
  struct Cell {
    Cell(std::string content, Tone itsTone = Tone::plain)
        : text(std::move(content)), tone(itsTone) {}
    Cell(const char* content) : text(content) {}
    std::string text;
    Tone tone = Tone::plain;
  };
  void add(std::vector<Cell> row) { _rows.push_back(std::move(row)); }
  bool empty() const { return _rows.empty(); }
  // Each line with its end, `indent` blanks before it.
  std::string text(const Screen& screen, std::size_t indent = 0) const;

 private:
  std::vector<std::vector<Cell>> _rows;
};

}  // namespace corvid::ctl
