#include "cli.h"
#include "cli_completion.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <sstream>

#include <sys/ioctl.h>
#include <unistd.h>

namespace cli {

namespace {

const char* meaning(Exit code)
{
    switch (code) {
    case Fine:
        return "done";
    case Failed:
        return "it failed";
    case Usage:
        return "the command line is not understood";
    case NoRecording:
        return "not an SDV recording";
    case NoKeyFrame:
        return "no key frame";
    case KeyTrouble:
        return "the key is wrong or missing";
    case NoOutput:
        return "the output is full or cannot be written";
    case Damaged:
        return "done, but damage was found";
    case Exists:
        return "the output exists already, and is not to be replaced";
    }
    return "";
}

std::string footer(const Help& help)
{
    std::string text;
    if (!help.examples.empty()) text += "\nExamples:\n";
    size_t at = 0;
    while (at < help.examples.size()) {
        const size_t end = std::min(help.examples.find('\n', at), help.examples.size());
        text += "  " + help.examples.substr(at, end - at) + "\n";
        at = end + 1;
    }
    text += "\nExit codes:\n";
    std::vector<std::pair<Exit, std::string>> codes = {{Fine, ""}, {Usage, ""}};
    codes.insert(codes.end(), help.codes.begin(), help.codes.end());
    std::sort(codes.begin(), codes.end());
    for (const auto& [code, what] : codes)
        text += "  " + std::to_string(code) + "  " + (what.empty() ? meaning(code) : what) + "\n";
    text.pop_back();
    return text;
}

constexpr size_t DescriptionColumn = 34; // at most

// What COLUMNS says, or the terminal.
size_t help_width()
{
    const char* told = getenv("COLUMNS");
    long width = told ? strtol(told, nullptr, 10) : 0;
    winsize size{};
    if (width <= 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) width = size.ws_col;
    return size_t(width > 0 ? std::clamp(width, 20L, 1000L) : 80);
}

// Where a line goes on below itself: under its description, if it has one beside the names or the number.
size_t hanging_indent(const std::string& line, size_t column)
{
    const size_t start = line.find_first_not_of(' ');
    if (start >= column) return start;
    if (line.size() > column && line[column] != ' ' && line.compare(column - 2, 2, "  ") == 0) return column;
    return isdigit(uint8_t(line[start])) ? 5 : 6;
}

std::string wrapped(std::string line, size_t column, size_t width, bool isCommand)
{
    const size_t indent = line.starts_with(' ') ? hanging_indent(line, column) : 0;
    const std::string end = isCommand ? " \\\n" : "\n";
    std::string text;
    while (line.size() > width) {
        const size_t most = width - (isCommand ? 2 : 0);
        size_t cut = line.rfind(' ', most);
        if (cut == std::string::npos || cut <= indent) cut = line.find(' ', most);
        if (cut == std::string::npos) break;
        text += line.substr(0, cut) + end;
        line = std::string(indent, ' ') + line.substr(cut + 1);
    }
    return text + line + "\n";
}

std::string format_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode)
{
    const size_t width = help_width(), column = std::min(DescriptionColumn, width * 2 / 5);
    CLI::Formatter formatter;
    formatter.column_width(column);
    std::istringstream help(formatter.make_help(app, std::move(name), mode));
    std::string text, section;
    for (std::string line; std::getline(help, line);) {
        if (!line.starts_with(' ')) section = line;
        text += wrapped(line, column, width, section == "Examples:");
    }
    return text;
}

} // namespace

void complete(CLI::App& app, const Help& help)
{
    app.set_version_flag("--version", app.get_name() + " " + QUORLIN_VERSION, "show the version and end");
    app.add_option_function<std::string>(
           "--completion",
           [&app](const std::string& shell) {
               fputs(completion(app, shell).c_str(), stdout);
               throw CLI::Success();
           },
           "print a completion script for the shell: bash or zsh")
        ->check(CLI::IsMember({"bash", "zsh"}))
        ->trigger_on_parse();
    app.formatter_fn(format_help);
    app.footer(footer(help));
}

// Where memory runs out and nothing can be thrown any more.
[[noreturn]] void end_without_memory()
{
    try {
        if (const auto error = std::current_exception()) std::rethrow_exception(error);
    } catch (const std::bad_alloc&) {
        dprintf(STDERR_FILENO, "%s: out of memory\n", program_invocation_short_name);
        _exit(Failed);
    } catch (...) {
    }
    abort();
}

std::optional<int> parse(CLI::App& app, int argc, char** argv)
{
    std::set_terminate(end_without_memory);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        fprintf(stderr, "%s: %s\nTry \"%s --help\".\n", app.get_name().c_str(), error.what(),
                app.get_name().c_str());
        return Usage;
    }
    return std::nullopt;
}

void choose(CLI::Option* option, const std::map<std::string, int>& numbers)
{
    std::string words;
    for (const auto& [word, number] : numbers) words += (words.empty() ? "{" : ",") + word;
    words += "}";
    const auto translate = [numbers, words](std::string& text) {
        const auto found = numbers.find(text);
        if (found == numbers.end()) return "\"" + text + "\" is not in " + words;
        text = std::to_string(found->second);
        return std::string();
    };
    option->type_name("TEXT")->transform(CLI::Validator(translate, words, "choice"));
}

const char* version()
{
    return QUORLIN_VERSION;
}

int give_up(const char* tool, const std::exception& error)
{
    const bool memory = dynamic_cast<const std::bad_alloc*>(&error);
    fprintf(stderr, "%s: %s\n", tool, memory ? "out of memory" : error.what());
    return Failed;
}

CLI::Option* names_file(CLI::Option* option)
{
    const auto refuse = [](const std::string& name) -> std::string {
        if (name.empty()) return "the name is empty";
        return name == "-" ? "- (standard input or output) cannot be used here; a file of that name is ./-"
                           : "";
    };
    return option->check(CLI::Validator(refuse, "", "file"));
}

bool moves_cursor(int fd)
{
    const char* terminal = getenv("TERM");
    return isatty(fd) && terminal && strcmp(terminal, "dumb") != 0;
}

bool has_colour(int fd)
{
    const char* refused = getenv("NO_COLOR");
    return moves_cursor(fd) && (!refused || !*refused);
}

std::string paint(const std::string& text, int colour, bool wanted)
{
    return wanted ? "\033[" + std::to_string(colour) + "m" + text + "\033[0m" : text;
}

} // namespace cli
