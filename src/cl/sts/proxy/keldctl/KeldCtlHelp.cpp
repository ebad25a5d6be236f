#include "KeldCtlHelp.h"

#include <algorithm>
#include <map>
#include <numeric>

namespace keldctl {

namespace {

// The forms of the arguments, by the names the commands give them.
const std::map<std::string, std::string>& argumentForms()
{
    static const std::map<std::string, std::string> forms = {
        {"SERVER", "a storage server as `keldctl servers` lists it: PREFIX:NAME, as Disk:HOST, ShMem:HOST or "
                   "Rados:NAME"},
        {"LSU", "an LSU of that server, as `keldctl lsus SERVER` lists it"},
        {"IMAGE", "base (the newest image of that name) or base@date@fulldate, as `keldctl images` prints it"},
        {"FILE", "a path; - is standard input (put) or standard output (get)"},
        {"SNAPSHOT", "a snapshot's name"},
        {"BASE", "a snapshot's name, or - for none"},
        {"DIFF", "a snapshot's name"},
        {"PATTERN", "a shell pattern of image names (quote it)"},
        {"NAME", "a server name, as SERVER"},
    };
    return forms;
}

bool takesValue(const CLI::Option& opt)
{
    return opt.get_items_expected_min() > 0;
}

std::string globalOptions(const CLI::App& root)
{
    std::string text = "Global options (before or after the command):\n";
    for (const CLI::Option* opt : root.get_options()) {
        if (opt->get_positional() || opt == root.get_help_ptr()) continue;
        std::string name = opt->get_name(false, true);
        if (takesValue(*opt)) name += " " + opt->get_type_name();
        text += "  " + name + "\n      " + opt->get_description();
        if (!opt->get_envname().empty()) text += " (default: $" + opt->get_envname() + ")";
        text += "\n";
    }
    return text;
}

std::string formsOf(const CLI::App& command)
{
    std::string text;
    for (const CLI::Option* opt : command.get_options()) {
        if (!opt->get_positional()) continue;
        const auto form = argumentForms().find(opt->get_name(true));
        if (form != argumentForms().end()) text += "  " + form->first + ": " + form->second + "\n";
    }
    return text.empty() ? "" : "Arguments:\n" + text;
}

void addFooters(CLI::App& root, CLI::App& command)
{
    for (CLI::App* sub : command.get_subcommands([](CLI::App*) { return true; })) {
        sub->footer("\n" + formsOf(*sub) + globalOptions(root) + "Exit status: 0 done, 1 failed, 2 usage, 3 not found, "
                    "4 unreachable, 130 interrupted.");
        addFooters(root, *sub);
    }
}

// The option named by word in command or a command above it, which takes
// its options after it too.
const CLI::Option* optionOf(const CLI::App* command, const std::string& word)
{
    for (; command != nullptr; command = command->get_parent()) {
        if (const CLI::Option* opt = command->get_option_no_throw(word)) return opt;
    }
    return nullptr;
}

// The place of the first word from `from` on that is neither an option nor
// an option's value, or words.size().
size_t nextWord(const CLI::App& command, const std::vector<std::string>& words, size_t from)
{
    for (size_t i = from; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "--") return words.size();
        if (word.size() < 2 || word[0] != '-') return i;
        if (word.find('=') != std::string::npos) continue;
        const CLI::Option* opt = optionOf(&command, word);
        if (opt != nullptr && takesValue(*opt)) ++i;   // its value
    }
    return words.size();
}

// How far apart two words are: the fewest letters inserted, deleted or
// changed to turn one into the other.
size_t editDistance(const std::string& a, const std::string& b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string closestCommand(const CLI::App& command, const std::string& word)
{
    std::string best;
    size_t bestDistance = std::string::npos;
    for (const CLI::App* sub : command.get_subcommands([](const CLI::App*) { return true; })) {
        const size_t d = editDistance(word, sub->get_name());
        if (d < bestDistance) {
            bestDistance = d;
            best = sub->get_name();
        }
    }
    return best;
}

} // namespace

void addHelpFooters(CLI::App& root)
{
    addFooters(root, root);
}

std::string unknownCommand(const CLI::App& root, const std::vector<std::string>& words)
{
    const CLI::App* command = &root;
    size_t at = 0;
    while (!command->get_subcommands([](const CLI::App*) { return true; }).empty()) {
        at = nextWord(*command, words, at);
        if (at == words.size()) return "";
        const std::string& word = words[at];
        try {
            command = command->get_subcommand(word);
        } catch (const CLI::OptionNotFound&) {
            return "unknown command \"" + word + "\"; did you mean \"" + closestCommand(*command, word) + "\"?";
        }
        ++at;
    }
    return "";
}

} // namespace keldctl
