// Generates completion scripts for bash and zsh from the commands and options of a command line.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <sstream>

#include "tools/base/command_line.h"

namespace kvtool {

namespace {

enum class Kind { kNothing, kFiles, kFolders, kWords };

struct Argument {
    std::vector<std::string> names;  // "-o", "--output"; empty for a positional argument
    std::string text;
    std::string type;
    bool takesValue = false;
    bool repeats = false;
    Kind kind = Kind::kNothing;
    std::vector<std::string> words;
};

struct Command {
    std::vector<std::string> path;  // the program's name first
    std::string text;
    std::vector<Argument> options;
    std::vector<Argument> positionals;
    std::vector<const CLI::App*> children;
};

Argument Describe(const CLI::Option& option) {
    Argument argument;
    for (const std::string& name : option.get_snames()) {
        argument.names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        argument.names.push_back("--" + name);
    }
    argument.text = option.get_description();
    const std::string type = option.get_type_name();
    argument.type = type.substr(0, type.find(':'));
    // The script does not take the next word for an optional value.
    argument.takesValue = option.get_items_expected_min() > 0;
    argument.repeats = option.get_items_expected_max() > 1;
    const size_t open = type.find('{');
    const size_t close = type.find('}', open);
    if (open != std::string::npos && close != std::string::npos) {
        argument.kind = Kind::kWords;
        argument.words = CLI::detail::split(type.substr(open + 1, close - open - 1), ',');
    } else if (argument.type == "DIR") {
        argument.kind = Kind::kFolders;
    } else if (argument.type == "FILE" || argument.type == "NAME=FILE") {
        argument.kind = Kind::kFiles;
    }
    return argument;
}

// Adds the command, then all its subcommands. `inherited` are options of the commands above that it
// also accepts.
void Collect(const CLI::App& app, std::vector<std::string> path, std::vector<Argument> inherited,
             std::vector<Command>* commands) {
    path.push_back(app.get_name());
    Command command{path, app.get_description(), std::move(inherited), {}, {}};
    for (const CLI::Option* option : app.get_options()) {
        Argument argument = Describe(*option);
        const bool known = std::any_of(
            command.options.begin(), command.options.end(),
            [&argument](const Argument& other) { return other.names == argument.names; });
        if (option->get_positional()) {
            command.positionals.push_back(std::move(argument));
        } else if (!known) {
            command.options.push_back(std::move(argument));
        }
    }
    command.children =
        app.get_subcommands([](const CLI::App* child) { return !child->get_group().empty(); });
    commands->push_back(command);
    for (const CLI::App* child : command.children) {
        Collect(*child, path, child->get_fallthrough() ? command.options : std::vector<Argument>(),
                commands);
    }
}

std::string Joined(const std::vector<std::string>& words, const char* between) {
    return CLI::detail::join(words, between);
}

std::string Quoted(const std::string& text) {
    std::string out = "'";
    for (const char c : text) {
        out += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return out + "'";
}

std::string BashAction(const Argument& argument) {
    switch (argument.kind) {
        case Kind::kFiles:
            return "files -f";
        case Kind::kFolders:
            return "files -d";
        case Kind::kWords:
            return "words " + Joined(argument.words, " ");
        case Kind::kNothing:
            break;
    }
    return "words";
}

// One case per positional argument, in order. A repeatable one covers all further words.
void BashPositionals(const Command& command, std::ostream& out) {
    const std::string path = Joined(command.path, " ");
    for (size_t i = 0; i < command.positionals.size(); ++i) {
        const bool open = command.positionals[i].repeats;
        out << "        "
            << (open ? Quoted(path + ":") + "*" : Quoted(path + ":" + std::to_string(i)))
            << ") action=" << Quoted(BashAction(command.positionals[i])) << " ;;\n";
        if (open) {
            return;
        }
    }
}

// The cases of the script for all commands.
struct BashCases {
    std::ostringstream walk;
    std::ostringstream values;
    std::ostringstream options;
    std::ostringstream positionals;
};

void BashCommand(const Command& command, BashCases* cases) {
    const std::string path = Joined(command.path, " ");
    std::vector<std::string> names;
    for (const Argument& option : command.options) {
        for (const std::string& name : option.names) {
            names.push_back(name);
            if (option.takesValue) {
                const std::string word = Quoted(Joined({path, name}, " "));
                cases->walk << "            " << word << ") skip=1 ;;\n";
                cases->values << "        " << word << ") action=" << Quoted(BashAction(option))
                              << " ;;\n";
            }
        }
    }
    std::vector<std::string> children;
    for (const CLI::App* child : command.children) {
        const std::string word = Quoted(Joined({path, child->get_name()}, " "));
        children.push_back(child->get_name());
        cases->walk << "            " << word << ") path=" << word << " count=0 ;;\n";
    }
    cases->options << "        " << Quoted(path) << ") options=" << Quoted(Joined(names, " "))
                   << " commands=" << Quoted(Joined(children, " ")) << " ;;\n";
    BashPositionals(command, cases->positionals);
}

void BashScript(const std::vector<Command>& commands, std::ostream& out) {
    const std::string program = commands.front().path.front();
    BashCases cases;
    for (const Command& command : commands) {
        BashCommand(command, &cases);
    }
    // bash splits "--name=value" into three words. A value just being typed may have no word yet.
    out << "# bash completion for " << program << ", generated by \"" << program
        << " completion bash\".\n"
        << "_" << program << "() {\n"
        << "    local path=" << program << " count=0 i=1 skip word cur prev action= options= "
        << "commands= plain=\n"
        << R"(    while ((i < COMP_CWORD)); do
        word=${COMP_WORDS[i]} skip=0
        case $path\ $word in
)" << cases.walk.str()
        << R"(            *)
                if [[ $word == -- ]]; then
                    plain=1
                elif [[ ${COMP_WORDS[i + 1]} == '=' ]] && ((i + 2 < COMP_CWORD)); then
                    ((i += 2))
                    [[ $word == -* ]] || ((count++))
                elif [[ $word != -* && $word != '=' ]]; then
                    ((count++))
                fi
                ;;
        esac
        if ((skip)) && ((i + 1 < COMP_CWORD)); then
            [[ ${COMP_WORDS[i + 1]} != '=' ]] || ((i++))
            ((i++))
        fi
        ((i++))
    done
    cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    if [[ $cur == '=' ]]; then
        cur=
    elif [[ $prev == '=' ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $path in
)" << cases.options.str()
        << R"(    esac
    case $path\ $prev in
)" << cases.values.str()
        << R"(    esac
    if [[ -z $action && $cur == -* && -z $plain ]]; then
        action="words $options"
    elif [[ -z $action && -n $commands ]]; then
        action="words $commands"
    elif [[ -z $action ]]; then
        case $path:$count in
)" << cases.positionals.str()
        << R"(        esac
    fi
    case $action in
        'files '*)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen "${action#files }" -- "$cur")
            ;;
        *)
            mapfile -t COMPREPLY < <(compgen -W "${action#words}" -- "$cur")
            ;;
    esac
}
)"
        << "complete -F _" << program << " " << program << "\n";
}

// Escapes a text for the brackets in which zsh expects the help of an option.
std::string ZshText(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '[' || c == ']' || c == ':' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out;
}

std::string ZshAction(const Argument& argument) {
    switch (argument.kind) {
        case Kind::kFiles:
            // The part before an equals sign is not part of the file name.
            return argument.type == "FILE" ? "_files" : "{compset -P '*='; _files}";
        case Kind::kFolders:
            return "_files -/";
        case Kind::kWords:
            return "(" + Joined(argument.words, " ") + ")";
        case Kind::kNothing:
            break;
    }
    return "";
}

void ZshOption(const Argument& option, std::ostream& out) {
    for (const std::string& name : option.names) {
        std::string spec = (option.repeats ? "*" : "") + name;
        if (option.takesValue) {
            spec += name.rfind("--", 0) == 0 ? "=" : "+";
        }
        spec += "[" + ZshText(option.text) + "]";
        if (option.takesValue) {
            spec += ":" + ZshText(option.type) + ":" + ZshAction(option);
        }
        out << " \\\n        " << Quoted(spec);
    }
}

void ZshFunction(const Command& command, std::ostream& out) {
    const std::string function = "_" + Joined(command.path, "_");
    out << function << "() {\n";
    if (!command.children.empty()) {
        out << "    local context curcontext=$curcontext state state_descr line\n"
               "    local -A opt_args\n    local -a commands\n    commands=(\n";
        for (const CLI::App* child : command.children) {
            out << "        " << Quoted(child->get_name() + ":" + ZshText(child->get_description()))
                << "\n";
        }
        out << "    )\n";
    }
    out << "    _arguments" << (command.children.empty() ? "" : " -C");
    for (const Argument& option : command.options) {
        ZshOption(option, out);
    }
    if (!command.children.empty()) {
        out << " \\\n        '1: :->command' \\\n        '*:: :->rest'\n    case $state in\n"
            << "        command) _describe command commands ;;\n        rest)\n"
            << "            case $line[1] in\n";
        for (const CLI::App* child : command.children) {
            out << "                " << child->get_name() << ") " << function << "_"
                << child->get_name() << " ;;\n";
        }
        out << "            esac\n            ;;\n    esac\n";
    } else {
        for (const Argument& positional : command.positionals) {
            out << " \\\n        "
                << Quoted((positional.repeats ? "*:" : ":") + ZshText(positional.text) + ":" +
                          ZshAction(positional));
        }
        out << "\n";
    }
    out << "}\n";
}

void ZshScript(const std::vector<Command>& commands, std::ostream& out) {
    const std::string program = commands.front().path.front();
    out << "#compdef " << program << "\n# zsh completion for " << program << ", generated by \""
        << program << " completion zsh\".\n";
    for (const Command& command : commands) {
        ZshFunction(command, out);
    }
    // Loaded from $fpath, the file is the function's body; sourced, it registers the function.
    out << "if [[ $funcstack[1] == _" << program << " ]]; then\n    _" << program
        << " \"$@\"\nelse\n    compdef _" << program << " " << program << "\nfi\n";
}

}  // namespace

void AddCompletion(CLI::App* app) {
    CLI::App* const completion =
        app->add_subcommand("completion", "Print a completion script")->group("");
    completion->require_subcommand(1);
    using Writer = void (*)(const std::vector<Command>&, std::ostream&);
    const std::pair<const char*, Writer> shells[] = {{"bash", BashScript}, {"zsh", ZshScript}};
    for (const auto& [shell, write] : shells) {
        completion->add_subcommand(shell)->callback([app, writer = write] {
            std::vector<Command> commands;
            Collect(*app, {}, {}, &commands);
            writer(commands, std::cout);
        });
    }
}

}  // namespace kvtool
