#include "cli_completion.h"

namespace cli {

namespace {

std::vector<std::string> names(const CLI::Option& option)
{
    std::vector<std::string> all;
    for (const std::string& name : option.get_snames()) all.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) all.push_back("--" + name);
    return all;
}

bool takes_value(const CLI::Option& option)
{
    return option.get_items_expected_max() > 0;
}

// Words of a set that the option's check names, as in "{bash,zsh}".
std::vector<std::string> values(const CLI::Option& option)
{
    const std::string type = option.get_type_name();
    const size_t open = type.find('{'), close = type.find('}');
    if (open == std::string::npos || close == std::string::npos) return {};

    std::vector<std::string> all;
    for (const std::string& word : CLI::detail::split(type.substr(open + 1, close - open - 1), ','))
        all.push_back(word.substr(0, word.find("->")));
    return all;
}

std::string join(const std::vector<std::string>& words, const std::string& by)
{
    return CLI::detail::join(words, by);
}

std::string for_bash(const CLI::App& app)
{
    const std::string& tool = app.get_name();
    std::vector<std::string> every;
    std::string cases;
    for (const CLI::Option* option : app.get_options()) {
        const std::vector<std::string> all = names(*option);
        every.insert(every.end(), all.begin(), all.end());
        const std::vector<std::string> words = values(*option);
        if (all.empty() || words.empty()) continue;
        cases += "    " + join(all, "|") + ") COMPREPLY=($(compgen -W \"" + join(words, " ") +
                 "\" -- \"$cur\")); return ;;\n";
    }
    return "_" + tool + "() {\n  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n" +
           "  case $prev in\n" + cases + "    *) ;;\n  esac\n" +
           "  case $cur in\n    -*) COMPREPLY=($(compgen -W \"" + join(every, " ") + "\" -- \"$cur\")) ;;\n" +
           "    *) COMPREPLY=($(compgen -f -- \"$cur\")) ;;\n  esac\n}\n" + "complete -o filenames -F _" +
           tool + " " + tool + "\n";
}

// What stands between quotes and brackets of an _arguments line.
std::string zsh_text(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        if (c == '\'') {
            out += "'\\''";
            continue;
        }
        if (c == '[' || c == ']' || c == ':' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

std::string for_zsh(const CLI::App& app)
{
    const std::string& tool = app.get_name();
    std::string lines;
    for (const CLI::Option* option : app.get_options()) {
        const std::vector<std::string> words = values(*option);
        const std::string action = words.empty() ? "_files" : "(" + join(words, " ") + ")";
        for (const std::string& name : names(*option))
            lines += " \\\n  '" + name + "[" + zsh_text(option->get_description()) + "]" +
                     (takes_value(*option) ? ":value:" + action : "") + "'";
    }
    return "#compdef " + tool + "\n_arguments" + lines + " \\\n  '*:file:_files'\n";
}

} // namespace

std::string completion(const CLI::App& app, const std::string& shell)
{
    return shell == "bash" ? for_bash(app) : for_zsh(app);
}

} // namespace cli
