// Which command is meant, whether it was given what it needs, and the help texts.

#include "command_line.h"

#include "commands.h"

#include <algorithm>
#include <exception>
#include <new>
#include <string_view>

namespace vrnx_cli {

namespace {

struct Option {
    const char* name;
    bool takesValue;
    bool repeatable = false;
};

struct Command {
    const char* name;
    size_t leastOperands;
    size_t mostOperands;
    std::vector<Option> options;
    int (*run)(const Arguments&, Console&);
    const char* help;
};

constexpr size_t manyOperands = SIZE_MAX;

const char programHelp[] =
    "Usage: vrnx COMMAND ...\n"
    "\n"
    "Looks into Vornix images. Nothing here writes to an image or a disk.\n"
    "\n"
    "  vrnx info   IMAGE                  [--json]\n"
    "  vrnx list   FOLDER                 [--json]\n"
    "  vrnx check  IMAGE... [--password-file F] [--jobs N] [--part I/N] [--json]\n"
    "  vrnx diff   OLD NEW                [--json]\n"
    "  vrnx map    IMAGE    [--check FILE] [--svg FILE]\n"
    "  vrnx export IMAGE OUT|- [--password-file F] [--salvage MAPFILE] [--from IMAGE]...\n"
    "\n"
    "  vrnx COMMAND --help    tells more of a command\n"
    "  vrnx --version         prints the version\n"
    "\n"
    "Exit status: 0 all good; 1 an image is damaged, incomplete or refused; 2 wrong usage; 3 it could not be done.\n";

const char infoHelp[] =
    "Usage: vrnx info IMAGE [--json]\n"
    "\n"
    "Tells what an image is, what it is based on, and what is wrong with it as far as that shows without reading\n"
    "its chunks. Needs no password.\n"
    "\n"
    "  --json    print a JSON document\n";

const char listHelp[] =
    "Usage: vrnx list FOLDER [--json]\n"
    "\n"
    "Shows the images of a folder (*.vrnx and *.partial) as a tree: what hangs on what, what is broken, and which can\n"
    "be deleted without harming another. Needs no password, and reads no chunks.\n"
    "\n"
    "  --json    print a JSON document\n";

const char checkHelp[] =
    "Usage: vrnx check IMAGE... [--password-file F] [--jobs N] [--part I/N] [--json]\n"
    "\n"
    "Reads every chunk of the disk that each image stands for, in whichever image of its chain it lies, and proves\n"
    "it.\n"
    "\n"
    "  --password-file F    the file with the password of sealed images\n"
    "  --jobs N             threads, 1 to 1024; all processors when absent\n"
    "  --part I/N           only the I-th of N parts of the chunks, so that N runs cover all\n"
    "  --json               print a JSON document\n";

const char diffHelp[] =
    "Usage: vrnx diff OLD NEW [--json]\n"
    "\n"
    "Tells which ranges of the disk differ between two images, from the hashes in their tables alone. Needs no\n"
    "password, and no base.\n"
    "\n"
    "  --json    print a JSON document\n";

const char mapHelp[] =
    "Usage: vrnx map IMAGE [--check FILE] [--svg FILE]\n"
    "\n"
    "Draws the disk: which image of the chain holds which part of it, what is zeros, and what is bad. Needs no\n"
    "password.\n"
    "\n"
    "  --check FILE    mark the chunks that are bad by this document of vrnx check --json\n"
    "  --svg FILE      draw into a new SVG file and not on the terminal\n";

const char exportHelp[] =
    "Usage: vrnx export IMAGE OUT|- [--password-file F] [--salvage MAPFILE] [--from IMAGE]...\n"
    "\n"
    "Writes the disk that an image stands for, every chunk proved, to a new file, or to standard output. Chunks of\n"
    "zeros become holes. A bad chunk ends it; what was written stays.\n"
    "\n"
    "  --password-file F    the file with the password of sealed images\n"
    "  --salvage MAPFILE    go on behind bad chunks, which become holes; MAPFILE, a new file, tells in the form of\n"
    "                       GNU ddrescue what is good (+) and what is not (-)\n"
    "  --from IMAGE         take a bad chunk out of this image or raw disk copy, where it has the right bytes; may be\n"
    "                       given several times\n";

const std::vector<Command>& Commands() {
    static const std::vector<Command> commands = {
        {"info", 1, 1, {{"--json", false}}, RunInfo, infoHelp},
        {"list", 1, 1, {{"--json", false}}, RunList, listHelp},
        {"check",
         1,
         manyOperands,
         {{"--password-file", true}, {"--jobs", true}, {"--part", true}, {"--json", false}},
         RunCheck,
         checkHelp},
        {"diff", 2, 2, {{"--json", false}}, RunDiff, diffHelp},
        {"map", 1, 1, {{"--check", true}, {"--svg", true}}, RunMap, mapHelp},
        {"export",
         2,
         2,
         {{"--password-file", true}, {"--salvage", true}, {"--from", true, true}},
         RunExport,
         exportHelp},
    };
    return commands;
}

bool HasCommand(const std::string& name) {
    return std::any_of(Commands().begin(), Commands().end(),
                       [&](const Command& command) { return name == command.name; });
}

const Command& FindCommand(const std::string& name) {
    for (const Command& command : Commands()) {
        if (name == command.name) {
            return command;
        }
    }
    throw UsageError{"unknown command: " + name};
}

const Option& FindOption(const Command& command, const std::string& name) {
    for (const Option& option : command.options) {
        if (name == option.name) {
            return option;
        }
    }
    throw UsageError{"unknown option: " + name};
}

bool AsksForHelp(const std::string& argument) {
    return argument == "--help" || argument == "-h";
}

// The value stands behind the option, or in it: --jobs 2, --jobs=2.
void TakeOption(const Command& command, const std::vector<std::string>& words, size_t& at, Arguments& arguments) {
    const std::string& word = words[at];
    size_t sign = word.find('=');
    std::string name = word.substr(0, sign);
    const Option& option = FindOption(command, name);
    std::string value;
    if (!option.takesValue) {
        if (sign != std::string::npos) {
            throw UsageError{name + " takes no value"};
        }
    } else if (sign != std::string::npos) {
        value = word.substr(sign + 1);
    } else {
        if (++at == words.size()) {
            throw UsageError{name + " needs a value"};
        }
        value = words[at];
    }
    std::vector<std::string>& values = arguments.options[name];
    if (!values.empty() && !option.repeatable) {
        throw UsageError{name + " is given twice"};
    }
    values.push_back(value);
}

// What stands behind the command's name. Gives false where it asks for help.
bool ParseArguments(const Command& command, const std::vector<std::string>& words, Arguments& arguments) {
    bool optionsMayFollow = true;
    for (size_t at = 1; at < words.size(); at++) {
        const std::string& word = words[at];
        if (!optionsMayFollow || word == "-" || word.empty() || word[0] != '-') {
            arguments.operands.push_back(word);
        } else if (word == "--") {
            optionsMayFollow = false;
        } else if (AsksForHelp(word)) {
            return false;
        } else {
            TakeOption(command, words, at, arguments);
        }
    }
    if (arguments.operands.size() < command.leastOperands) {
        throw UsageError{std::string(command.name) + " needs more than that"};
    }
    if (arguments.operands.size() > command.mostOperands) {
        throw UsageError{"not understood: " + arguments.operands[command.mostOperands]};
    }
    return true;
}

int Dispatch(const std::vector<std::string>& words, Console& console) {
    if (words.empty()) {
        throw UsageError{"a command is missing"};
    }
    if (AsksForHelp(words[0])) {
        console.Print(programHelp);
        return statusGood;
    }
    if (words[0] == "--version") {
        console.Print("vrnx " VRNX_VERSION "\n");
        return statusGood;
    }
    const Command& command = FindCommand(words[0]);
    Arguments arguments;
    if (ParseArguments(command, words, arguments)) {
        return command.run(arguments, console);
    }
    console.Print(command.help);
    return statusGood;
}

int DispatchWithoutExceptions(const std::vector<std::string>& words, Console& console) {
    try {
        return Dispatch(words, console);
    } catch (const UsageError& error) {
        bool known = !words.empty() && HasCommand(words[0]);
        console.Complain("see vrnx " + (known ? words[0] + " --help" : std::string("--help")));
        return statusUsage;
    } catch (const std::bad_alloc&) {
        console.Complain("out of memory");
    } catch (const std::exception& error) {
        console.Complain(error.what());
    }
    return statusFailed;
}

} // namespace

const std::string* Arguments::Value(const std::string& name) const {
    auto found = options.find(name);
    return found == options.end() ? nullptr : &found->second.front();
}

std::vector<std::string> Arguments::Values(const std::string& name) const {
    auto found = options.find(name);
    return found == options.end() ? std::vector<std::string>() : found->second;
}

int RunCommandLine(const std::vector<std::string>& arguments) {
    Console console;
    int status = DispatchWithoutExceptions(arguments, console);
    console.Flush();
    console.EndProgress();
    return console.OutputFailed() ? static_cast<int>(statusFailed) : status;
}

} // namespace vrnx_cli
