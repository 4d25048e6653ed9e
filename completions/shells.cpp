// completions/shells.cpp: writing the bash, zsh and fish completion scripts.
#include "completions/shells.h"

#include <algorithm>

namespace nurel {

namespace {

const char* const generatedNote =
    "# Generated at build time from nurel's command table (catalogue/commands.cpp):\n"
    "# change that table, not this file.\n";

template <typename Words>
std::string join(const Words& words, const std::string& separator) {
  std::string out;
  for (const auto& word : words) out += (out.empty() ? "" : separator) + std::string(word);
  return out;
}

// A word in single quotes for bash and zsh.
std::string shellQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// A word in single quotes for fish, where a backslash escapes a quote and itself.
std::string fishQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  return out + "'";
}

std::vector<std::string> optionWords(const CompletionCommand& command) {
  std::vector<std::string> out;
  for (const CompletionOption& option : command.options) out.push_back("--" + option.name);
  return out;
}

std::vector<std::string> valuedNames(const CompletionModel& model, bool files) {
  std::vector<std::string> out;
  for (const CompletionOption& option : model.valued)
    if (!files || namesFile(option.value)) out.push_back(option.name);
  return out;
}

size_t requiredWords(const CompletionCommand& command) {
  return std::count_if(command.words.begin(), command.words.end(),
                       [](const CompletionWord& word) { return !word.optional; });
}

// How a positional word at `index` (0 is the tab) is completed, as a shell condition on the
// count of positional words before the cursor: "== 1", or ">= 2" for a repeated last word.
std::string condition(const CompletionWord& word, size_t index) {
  return (word.repeats ? ">= " : "== ") + std::to_string(index);
}

}  // namespace

bool namesFile(std::string_view placeholder) {
  return placeholder == "<file>" || placeholder == "<path>";
}

CompletionModel completionModel(const std::vector<UsageEntry>& entries) {
  CompletionModel model;
  for (const UsageEntry& entry : entries)
    for (const Command* command : entry.commands) {
      CompletionCommand out{std::string(command->name), join(entry.description, " "), {}, {}};
      for (const Part& part : command->parts) {
        if (part.kind == Part::Kind::word) {
          std::vector<std::string> choices(part.alternatives.begin(), part.alternatives.end());
          out.words.push_back({part.wordShown(), std::move(choices), part.depth > 0,
                               part.repeats});
          continue;
        }
        for (std::string_view name : part.optionNames())
          out.options.push_back({std::string(name), std::string(part.shown)});
      }
      if (command->talksToBrowser())
        out.options.push_back(
            {std::string(actionOption().name), std::string(actionOption().shown)});
      model.commands.push_back(std::move(out));
    }
  for (const CompletionCommand& command : model.commands)
    for (const CompletionOption& option : command.options) {
      auto same = [&](const CompletionOption& o) { return o.name == option.name; };
      if (!option.value.empty() && std::none_of(model.valued.begin(), model.valued.end(), same))
        model.valued.push_back(option);
    }
  std::sort(model.valued.begin(), model.valued.end(),
            [](const CompletionOption& a, const CompletionOption& b) { return a.name < b.name; });
  return model;
}

std::string bashCompletion(const CompletionModel& model) {
  std::vector<std::string> names;
  for (const CompletionCommand& command : model.commands) names.push_back(command.name);
  std::string out =
      "# bash completion for nurel                               -*- shell-script -*-\n";
  out += generatedNote;
  out += R"(
# File names for the word being completed, with bash-completion's helper when it is loaded.
_nurel_files()
{
    if declare -F _filedir >/dev/null; then
        _filedir
    else
        compopt -o filenames 2>/dev/null
        local IFS=$'\n'
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}

_nurel()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    COMPREPLY=()
    if ((COMP_CWORD <= 1)); then
        # an option before the command is a mistake, so only commands are offered
        [[ $cur == -* ]] || COMPREPLY=($(compgen -W ')" +
         join(names, " ") + R"(' -- "$cur"))
        return 0
    fi

    # Read the words before the cursor as nurel does: a valued option takes the next word,
    # whatever it is; any other word that is not an option is positional.
    local command=${COMP_WORDS[1]} word expecting= count=0 i
    for ((i = 2; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ -n $expecting ]]; then
            expecting=
        elif [[ $word == --?* ]]; then
            case ${word#--} in
                )" +
         join(valuedNames(model, false), "|") + R"() expecting=${word#--} ;;
            esac
        else
            count=$((count + 1))
        fi
    done
    if [[ -n $expecting ]]; then
        case $expecting in
            )" +
         join(valuedNames(model, true), "|") + R"() _nurel_files ;;
        esac
        return 0
    fi

    local options= required=0 files= choices=
    case $command in
)";
  for (const CompletionCommand& command : model.commands) {
    out += "        " + command.name + ")\n";
    out += "            options=" + shellQuoted(join(optionWords(command), " ")) + "\n";
    for (size_t i = 0; i < command.words.size(); ++i) {
      const CompletionWord& word = command.words[i];
      if (namesFile(word.placeholder))
        out += "            ((count " + condition(word, i) + ")) && files=1\n";
      else if (!word.choices.empty())
        out += "            ((count " + condition(word, i) +
               ")) && choices=" + shellQuoted(join(word.choices, " ")) + "\n";
    }
    out += "            required=" + std::to_string(requiredWords(command)) + " ;;\n";
  }
  out += R"(    esac

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    elif [[ -n $files ]]; then
        _nurel_files
    elif [[ -n $choices ]]; then
        COMPREPLY=($(compgen -W "$choices" -- "$cur"))
    elif ((count >= required)); then
        # the words the command needs are there: its options come next
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    fi
    return 0
} &&
    complete -F _nurel nurel
)";
  return out;
}

std::string zshCompletion(const CompletionModel& model) {
  std::string out = "#compdef nurel\n# zsh completion for nurel.\n";
  out += generatedNote;
  out += R"(
_nurel() {
  local -a commands options choices
  commands=(
)";
  for (const CompletionCommand& command : model.commands)
    out += "    " + shellQuoted(command.name + ":" + command.summary) + "\n";
  out += R"(  )
  if (( CURRENT <= 2 )); then
    # an option before the command is a mistake, so only commands are offered
    [[ $PREFIX == -* ]] || _describe -t commands 'nurel command' commands
    return
  fi

  # Read the words before the cursor as nurel does: a valued option takes the next word,
  # whatever it is; any other word that is not an option is positional.
  local command=$words[2] expecting= word files=
  integer count=0 required=0 i
  for (( i = 3; i < CURRENT; i++ )); do
    word=$words[i]
    if [[ -n $expecting ]]; then
      expecting=
    elif [[ $word == --?* ]]; then
      case ${word#--} in
        ()" +
         join(valuedNames(model, false), "|") + R"() expecting=${word#--} ;;
      esac
    else
      (( ++count ))
    fi
  done
  if [[ -n $expecting ]]; then
    case $expecting in
      ()" +
         join(valuedNames(model, true), "|") + R"() _files ;;
)";
  for (const CompletionOption& option : model.valued)
    if (!namesFile(option.value))
      out += "      (" + option.name + ") _message -e values " +
             shellQuoted("--" + option.name + " " + option.value) + " ;;\n";
  out += R"(    esac
    return
  fi

  case $command in
)";
  for (const CompletionCommand& command : model.commands) {
    std::vector<std::string> described;
    for (const CompletionOption& option : command.options)
      described.push_back(
          shellQuoted("--" + option.name + (option.value.empty() ? "" : ":" + option.value)));
    out += "    (" + command.name + ")\n";
    out += "      options=(" + join(described, " ") + ")\n";
    for (size_t i = 0; i < command.words.size(); ++i) {
      const CompletionWord& word = command.words[i];
      if (namesFile(word.placeholder))
        out += "      (( count " + condition(word, i) + " )) && files=1\n";
      else if (!word.choices.empty())
        out += "      (( count " + condition(word, i) + " )) && choices=(" +
               join(word.choices, " ") + ")\n";
    }
    out += "      required=" + std::to_string(requiredWords(command)) + " ;;\n";
  }
  out += R"(  esac

  if [[ $PREFIX == -* ]]; then
    _describe -t options 'option' options
  elif [[ -n $files ]]; then
    _files
  elif (( $#choices )); then
    compadd -a choices
  elif (( count >= required )); then
    # the words the command needs are there: its options come next
    _describe -t options 'option' options
  fi
}

if [[ $zsh_eval_context[-1] == loadautofunc ]]; then
  # autoloaded from fpath: this file is the function's body
  _nurel "$@"
else
  # sourced
  compdef _nurel nurel
fi
)";
  return out;
}

std::string fishCompletion(const CompletionModel& model) {
  std::string out = "# fish completion for nurel.\n";
  out += generatedNote;
  out += R"(
function __nurel_complete --description 'completions for the nurel command line'
    set -l tokens (commandline -opc)
    set -l current (commandline -ct)
    if test (count $tokens) -lt 2
        # an option before the command is a mistake, so only commands are offered
        string match -q -- '-*' $current; and return
        printf '%s\t%s\n' \
)";
  for (size_t i = 0; i < model.commands.size(); ++i)
    out += "            " + model.commands[i].name + " " + fishQuoted(model.commands[i].summary) +
           (i + 1 < model.commands.size() ? " \\\n" : "\n");
  out += R"(        return
    end

    # Read the words before the cursor as nurel does: a valued option takes the next word,
    # whatever it is; any other word that is not an option is positional.
    set -l command $tokens[2]
    set -e tokens[1..2]
    set -l expecting
    set -l count 0
    for word in $tokens
        if test -n "$expecting"
            set expecting
        else if string match -qr -- '^--.' $word
            switch (string sub -s 3 -- $word)
                case )" +
         join(valuedNames(model, false), " ") + R"(
                    set expecting (string sub -s 3 -- $word)
            end
        else
            set count (math $count + 1)
        end
    end
    if test -n "$expecting"
        switch $expecting
            case )" +
         join(valuedNames(model, true), " ") + R"(
                __fish_complete_path $current
        end
        return
    end

    set -l options
    set -l required 0
    set -l files
    set -l choices
    switch $command
)";
  for (const CompletionCommand& command : model.commands) {
    std::vector<std::string> described;
    for (const CompletionOption& option : command.options)
      described.push_back("--" + option.name +
                          (option.value.empty() ? "" : "\\t" + fishQuoted(option.value)));
    out += "        case " + command.name + "\n";
    out += "            set options " + join(described, " ") + "\n";
    for (size_t i = 0; i < command.words.size(); ++i) {
      const CompletionWord& word = command.words[i];
      std::string test = std::string(word.repeats ? "-ge " : "-eq ") + std::to_string(i);
      if (namesFile(word.placeholder))
        out += "            test $count " + test + "; and set files 1\n";
      else if (!word.choices.empty())
        out += "            test $count " + test + "; and set choices " + join(word.choices, " ") +
               "\n";
    }
    out += "            set required " + std::to_string(requiredWords(command)) + "\n";
  }
  out += R"(    end

    if string match -q -- '-*' $current
        printf '%s\n' $options
    else if test -n "$files"
        __fish_complete_path $current
    else if set -q choices[1]
        printf '%s\n' $choices
    else if test $count -ge $required
        # the words the command needs are there: its options come next
        printf '%s\n' $options
    end
end

complete -c nurel -f -a '(__nurel_complete)'
)";
  return out;
}

}  // namespace nurel
