// browser/scenarios.cpp: scenarios, the person's recorded steps, listed and run.
//
// A scenario is a JSON file in <data folder>/scenarios/: a name, a start address and steps. A
// step is an action as a batch has it ("do" naming the tool, with its arguments), with the
// element it acts on named by what it is ("role" and "name"; "to_role" and "to_name" for where
// a drag ends) instead of a ref, which would not outlive the page. Text may hold {{field}}
// placeholders; a step marked "secret" takes its text only from the values given to run.
#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

#include "browser/browser.h"

namespace nurel::browser {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

struct Scenario {
  std::string file, name, start;
  Json steps;
};

// What is wrong with `scenario`, or "".
std::string problem(const Json& scenario) {
  if (!scenario.is_object()) return "it isn't a JSON object";
  if (!scenario.contains("name") || !scenario["name"].is_string() || scenario["name"].get<std::string>().empty())
    return "it has no \"name\"";
  if (!scenario.contains("start") || !scenario["start"].is_string()) return "it has no \"start\" address";
  if (!scenario.contains("steps") || !scenario["steps"].is_array()) return "it has no list of \"steps\"";
  size_t number = 0;
  for (const Json& step : scenario["steps"]) {
    ++number;
    std::string at = "step " + std::to_string(number);
    if (!step.is_object() || !step.contains("do") || !step["do"].is_string()) return at + " has no \"do\"";
    if (stepMethod(step["do"]).empty()) return at + ": " + step["do"].get<std::string>() + " isn't an action a step can do";
    for (const char* name : {"role", "name", "to_role", "to_name", "text"})
      if (step.contains(name) && !step[name].is_string()) return at + ": \"" + name + "\" must be a string";
  }
  return {};
}

// Every scenario file, read; the malformed ones as a line saying why.
std::vector<Scenario> readAll(const std::string& folder, std::vector<std::string>& broken) {
  std::vector<std::string> files;
  if (DIR* dir = opendir(folder.c_str())) {
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0 && name[0] != '.') files.push_back(name);
    }
    closedir(dir);
  }
  std::sort(files.begin(), files.end());
  std::vector<Scenario> scenarios;
  for (const std::string& file : files) {
    std::ifstream in(folder + "/" + file);
    std::stringstream text;
    text << in.rdbuf();
    Json parsed = Json::parse(text.str(), nullptr, false);
    std::string wrong = parsed.is_discarded() ? "it isn't valid JSON" : problem(parsed);
    if (!wrong.empty()) {
      broken.push_back(file + ": skipped, " + wrong);
      continue;
    }
    scenarios.push_back({file, parsed["name"], parsed["start"], parsed["steps"]});
  }
  return scenarios;
}

// The element a step names, as the line says it: `role "name"`.
std::string named(const std::string& role, const std::string& name) {
  return role + (name.empty() ? "" : " " + quote(name));
}

std::string stepLine(const Json& step) {
  std::string line = step["do"].get<std::string>();
  if (step.contains("role") || step.contains("name")) line += " " + named(step.value("role", ""), step.value("name", ""));
  if (step.contains("to_role") || step.contains("to_name"))
    line += " to " + named(step.value("to_role", ""), step.value("to_name", ""));
  if (step.value("secret", false)) return line + ": (secret)";
  for (const char* name : {"text", "option", "key", "url"})
    if (step.contains(name) && step[name].is_string()) return line + ": " + step[name].get<std::string>();
  return line;
}

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), ::tolower);
  return text;
}

// The ref of the element that best fits `role` and `name` in a snapshot, or "": the same role
// and name, else the same role and name in other case or spacing, else the same role with one
// name holding the other, else the same name in another role.
std::string bestRef(const std::string& snapshot, const std::string& role, const std::string& name) {
  std::string fits[4];
  std::istringstream lines(snapshot);
  std::string line;
  auto squashed = [](const std::string& text) {
    std::string out;
    for (char c : text) {
      if (std::isspace(static_cast<unsigned char>(c))) {
        if (!out.empty() && out.back() != ' ') out += ' ';
      } else {
        out += char(std::tolower(static_cast<unsigned char>(c)));
      }
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
  };
  while (std::getline(lines, line)) {
    size_t dash = line.find("- ");
    size_t ref = line.rfind("[ref=");
    if (dash == std::string::npos || ref == std::string::npos) continue;
    size_t roleEnd = line.find_first_of(" :", dash + 2);
    std::string hasRole = line.substr(dash + 2, roleEnd - dash - 2), hasName;
    if (roleEnd < line.size() && line.compare(roleEnd, 2, " \"") == 0) {
      // The name is a JSON string: read it whole, escapes and all.
      size_t end = roleEnd + 2;
      while (end < line.size() && line[end] != '"') end += line[end] == '\\' ? 2 : 1;
      Json parsed = Json::parse(line.substr(roleEnd + 1, end - roleEnd), nullptr, false);
      if (parsed.is_string()) hasName = parsed;
    }
    std::string refName = line.substr(ref + 5, line.find(']', ref) - ref - 5);
    bool sameRole = role.empty() || hasRole == role;
    int tier = -1;
    if (sameRole && hasName == name) tier = 0;
    else if (sameRole && squashed(hasName) == squashed(name)) tier = 1;
    else if (sameRole && !name.empty() && !hasName.empty() &&
             (lowered(hasName).find(lowered(name)) != std::string::npos ||
              lowered(name).find(lowered(hasName)) != std::string::npos))
      tier = 2;
    else if (!name.empty() && hasName == name) tier = 3;
    if (tier >= 0 && fits[tier].empty()) fits[tier] = refName;
  }
  for (const std::string& fit : fits)
    if (!fit.empty()) return fit;
  return {};
}

// `text` with each {{field}} filled from `values`; `missing` names what had no value.
std::string filled(const std::string& text, const Json& values, std::string& missing) {
  std::string out;
  size_t at = 0;
  while (true) {
    size_t open = text.find("{{", at);
    size_t close = open == std::string::npos ? open : text.find("}}", open + 2);
    if (close == std::string::npos) break;
    std::string field = text.substr(open + 2, close - open - 2);
    field.erase(0, field.find_first_not_of(' '));
    field.erase(field.find_last_not_of(' ') + 1);
    out += text.substr(at, open - at);
    if (values.contains(field) && values[field].is_string()) {
      out += values[field].get<std::string>();
    } else {
      if (missing.empty()) missing = field;
      out += text.substr(open, close + 2 - open);
    }
    at = close + 2;
  }
  return out + text.substr(at);
}

}  // namespace

std::string Browser::scenarioFolder() const { return settings.dataFolder + "/scenarios"; }

Json Browser::scenarios(const Json&) {
  std::vector<std::string> broken;
  std::vector<Scenario> all = readAll(scenarioFolder(), broken);
  std::string out;
  for (const Scenario& scenario : all) {
    out += quote(scenario.name) + " (" + scenario.file + "): starts at " + scenario.start + ", " +
           std::to_string(scenario.steps.size()) + (scenario.steps.size() == 1 ? " step\n" : " steps\n");
    size_t number = 0;
    for (const Json& step : scenario.steps) out += "  " + std::to_string(++number) + ". " + stepLine(step) + "\n";
  }
  for (const std::string& line : broken) out += line + "\n";
  if (out.empty()) return "no scenarios yet: they are JSON files in " + scenarioFolder() + " (doc/scenarios.md in nurel's sources shows how)";
  out.pop_back();
  return out;
}

Json Browser::run(const Json& params) {
  auto tab = tabFor(params);
  std::string wanted = stringParam(params, "scenario");
  if (wanted.empty()) throw Failure("run takes the name of a scenario: scenarios lists them");
  std::vector<std::string> broken;
  std::vector<Scenario> all = readAll(scenarioFolder(), broken);
  const Scenario* scenario = nullptr;
  for (const Scenario& each : all)
    if (each.name == wanted) scenario = &each;
  for (const Scenario& each : all)
    if (!scenario && (lowered(each.name) == lowered(wanted) || each.file == wanted || each.file == wanted + ".json"))
      scenario = &each;
  if (!scenario) {
    for (const std::string& line : broken)
      if (line.rfind(wanted, 0) == 0) throw Failure("the scenario file " + line);
    throw Failure("no scenario " + quote(wanted) + ": scenarios lists them");
  }
  Json values = params.contains("values") && params["values"].is_object() ? params["values"] : Json::object();

  // Every step's arguments, filled, before anything is done: a value missing stops it here.
  std::vector<Json> steps;
  size_t number = 0;
  for (const Json& step : scenario->steps) {
    ++number;
    std::string key = std::to_string(number);
    Json arguments = step;
    bool secret = step.value("secret", false);
    for (const char* name : {"do", "role", "name", "to_role", "to_name", "secret", "timeout", "tab"})
      arguments.erase(name);
    if (values.contains(key) && values[key].is_string()) arguments["text"] = values[key];
    else if (secret && !step.contains("text"))
      throw Failure("step " + key + " (" + stepLine(step) + ") is secret and needs its value: give it as values {\"" +
                    key + "\": …}; nothing was done");
    for (auto& [name, value] : arguments.items()) {
      if (!value.is_string()) continue;
      std::string missing;
      value = filled(value.get<std::string>(), values, missing);
      if (!missing.empty())
        throw Failure("step " + key + " (" + stepLine(step) + ") needs a value for {{" + missing +
                      "}}: give it as values {\"" + missing + "\": …}; nothing was done");
    }
    arguments["tab"] = tab->id;
    steps.push_back(std::move(arguments));
  }

  std::string lines;
  std::string opened = handle("navigate", {{"tab", tab->id}, {"url", scenario->start}}).get<std::string>();
  lines += "started at " + opened.substr(opened.find(' ') + 1) + "\n";
  number = 0;
  for (const Json& step : scenario->steps) {
    Json& arguments = steps[number++];
    std::string prefix = std::to_string(number) + ". " + stepLine(step);
    auto fail = [&](const std::string& why) {
      std::string rest = number < steps.size()
                             ? " (the " + std::to_string(steps.size() - number) + " after it not done)"
                             : "";
      return Failure(lines + "stopped at step " + prefix.substr(0, prefix.find('.')) + " (" +
                     prefix.substr(prefix.find(' ') + 1) + "): " + why + rest);
    };
    // Each element found again by what it was, waiting for the page to show it.
    double most = step.contains("timeout") && step["timeout"].is_number() ? step["timeout"].get<double>() : 10;
    auto deadline = Clock::now() + std::chrono::milliseconds(int64_t(std::clamp(most, 0.0, 600.0) * 1000));
    for (auto [role, name, into] : {std::tuple{"role", "name", "ref"}, std::tuple{"to_role", "to_name", "to_ref"}}) {
      if (!step.contains(role) && !step.contains(name)) continue;
      std::string found;
      while (true) {
        found = bestRef(snapshotText(tab, "full"), step.value(role, ""), step.value(name, ""));
        if (!found.empty() || Clock::now() >= deadline) break;
        std::this_thread::sleep_for(250ms);
        tabFor({{"tab", tab->id}});  // a dialog or a closed tab ends the wait
      }
      if (found.empty())
        throw fail("no " + named(step.value(role, ""), step.value(name, "")) + " on the page after " +
                   std::to_string(int64_t(most)) + " s");
      arguments[into] = found;
    }
    try {
      Json result = handle(stepMethod(step["do"]), arguments);
      lines += prefix + ": " + (result.is_string() ? result.get<std::string>() : compactRepaired(result)) + "\n";
    } catch (const Failure& failure) {
      throw fail(failure.what());
    }
  }
  lines += "done: " + quote(scenario->name) + ", " + std::to_string(steps.size()) + " steps";
  return lines;
}

}  // namespace nurel::browser
