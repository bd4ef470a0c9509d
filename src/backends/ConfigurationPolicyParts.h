// The pieces that the per-program checks of ConfigurationPolicy share. Only
// the ConfigurationPolicy*.cpp files include this.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backends/ConfigurationPolicy.h"

namespace korvo::configuration_policy {

// One line of the text: its content without the line feed and without a
// carriage return right before it, where that content starts in the text,
// and its number counted from 1.
struct Line {
    std::string_view content;
    std::size_t offset = 0;
    std::size_t number = 0;
};

// The text split at line feeds, the only line break all four programs know.
// A text ending in a line feed has no empty last line.
std::vector<Line> linesOf(std::string_view text);

// A path that a directive names, where it stands in the text (the whole
// written word, quotes included) and what the program would open.
struct FileReference {
    std::string directive;
    std::string path;
    std::size_t offset = 0;
    std::size_t length = 0;
    std::size_t line = 0;
};

// What a program's check found: the first refusal, or else the files to copy.
struct Findings {
    std::optional<std::string> refusal;
    std::vector<FileReference> files;
};

// The refusal messages, the same for every program.
std::string notAllowed(ConfiguredProgram program, std::string_view directive, std::size_t line);
std::string valueNotAllowed(ConfiguredProgram program, std::string_view directive, std::size_t line);
std::string fileNotUsable(std::string_view directive, std::size_t line);
std::string notValid(ConfiguredProgram program, std::size_t line, std::string_view reason);

// Records a file reference for the written word text[offset, offset+length)
// of `line` that names `path`.
void addFile(Findings& findings, std::string_view directive, std::string path, const Line& line,
             std::size_t offsetInLine, std::size_t length);

Findings checkOpenVPN(const std::vector<Line>& lines);
Findings checkSSH(const std::vector<Line>& lines);
Findings checkVPNC(const std::vector<Line>& lines);
Findings checkOpenConnect(const std::vector<Line>& lines);

// ASCII helpers: the formats' keywords and separators are ASCII.
std::string asciiLowercase(std::string_view text);
bool isBlank(char c);  // space or tab

}  // namespace korvo::configuration_policy
