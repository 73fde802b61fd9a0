#ifndef BOARDKIT_EXAMPLES_PAGE_H
#define BOARDKIT_EXAMPLES_PAGE_H

#include <string>
#include <vector>

/// The tour's page: chapters of steps, steps of rows, 80 columns wide. In colour on a terminal, unless the environment
/// has NO_COLOR.
namespace page {

using Lines = std::vector<std::string>;

/// Begins a chapter; the header is the one that declares what it shows.
void Chapter(const std::string& title, const std::string& header);

/// Begins a step, with a sentence or its beginning.
void Step(const std::string& title);

/// What is called, as it stands in the program.
void Call(const std::string& code);

/// A row of the step: a label of up to 9 characters, and what it stands for. Long texts are broken at a blank.
void Row(const std::string& label, const Lines& lines);
void Row(const std::string& label, const std::string& text);

/// A row that the next one, or the next progress, overwrites. Only on a terminal: elsewhere it would be noise.
void Progress(const std::string& label, const std::string& text);

/// What went wrong, in the words of the exception.
void Failure(const std::string& text);

/// A line outside of all chapters, with its blank line before it.
void Note(const std::string& text);

std::string Quoted(const std::string& text);

/// A number of seconds with one decimal, from milliseconds.
std::string Seconds(long milliseconds);

/// A word of 32 bits, with all its digits.
std::string Hex(unsigned int word);

/// The text's lines, without their ends and without empty ones.
Lines SplitLines(const std::string& text);

}  // namespace page

#endif
