#include "cli.h"
#include "cli_completion.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

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
    app.get_formatter()->column_width(34);
    app.footer(footer(help));
}

std::optional<int> parse(CLI::App& app, int argc, char** argv)
{
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

int give_up(const char* tool, const std::exception& error)
{
    const bool memory = dynamic_cast<const std::bad_alloc*>(&error);
    fprintf(stderr, "%s: %s\n", tool, memory ? "out of memory" : error.what());
    return Failed;
}

bool has_colour(int fd)
{
    const char* refused = getenv("NO_COLOR");
    const char* terminal = getenv("TERM");
    return isatty(fd) && (!refused || !*refused) && terminal && strcmp(terminal, "dumb") != 0;
}

std::string paint(const std::string& text, int colour, bool wanted)
{
    return wanted ? "\033[" + std::to_string(colour) + "m" + text + "\033[0m" : text;
}

} // namespace cli
