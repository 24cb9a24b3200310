#pragma once

#include <string>
#include <vector>

#include "source_texts.hpp"

/// Compares the page of messages with the texts in the sources.
namespace zendar::test {

/// A message as the page gives it: fixed text, with "<names>" for what varies.
struct page_entry {
    std::string text;
    int line = 0;
};

/// The entries of a page: the lines "- `text`", which may be indented.
std::vector<page_entry> entries_of_page(const std::string& page);

/// Whether a text goes to the user as an error or a warning, or as a part of one. A text is a message unless
/// it is known as something else, so that the texts of a new helper are messages at first.
bool is_message(const source_text& text);

/// Whether an entry shows the text: its literals, one after the other.
bool shows(const page_entry& entry, const source_text& text);

/// Whether the fixed text of an entry consists of literals of the sources.
class literal_tiles {
  public:
    explicit literal_tiles(const std::vector<source_text>& texts);
    /// The first piece of an entry that is not in the sources; empty when all are.
    [[nodiscard]] std::string unknown_piece(const page_entry& entry) const;

  private:
    [[nodiscard]] bool consists_of_tiles(const std::string& piece, bool first, bool last) const;

    std::vector<std::string> tiles_;
};

}  // namespace zendar::test
