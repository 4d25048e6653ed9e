// catalogue/catalogue_test.cpp: the tool list, the shared schemas and the tool builder.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "catalogue/catalogue.h"
#include "tests/run_nurel.h"

namespace nurel {
namespace {

using Names = std::vector<std::string>;

Names toolNames() {
  Names names;
  for (const OrderedJson& tool : tools()) names.push_back(tool["name"]);
  return names;
}

const OrderedJson& toolNamed(const std::string& name) {
  for (const OrderedJson& tool : tools()) {
    if (tool["name"] == name) return tool;
  }
  ADD_FAILURE() << "no tool " << name;
  static const OrderedJson none = {
      {"inputSchema", {{"properties", OrderedJson::object()}, {"required", OrderedJson::array()}}}};
  return none;
}

const OrderedJson& properties(const std::string& name) {
  return toolNamed(name)["inputSchema"]["properties"];
}

Names propertyNames(const std::string& name) {
  Names names;
  for (const auto& [key, value] : properties(name).items()) names.push_back(key);
  return names;
}

Names required(const std::string& name) { return toolNamed(name)["inputSchema"]["required"]; }

bool isRequired(const std::string& name, const std::string& property) {
  Names list = required(name);
  return std::find(list.begin(), list.end(), property) != list.end();
}

Names sorted(Names names) {
  std::sort(names.begin(), names.end());
  return names;
}

OrderedJson bareTool(const std::string& name) {
  return tool(name, "a tool", OrderedJson::object(), {});
}

// The whole list

TEST(Catalogue, MatchesTheExpectedDocument) {
  auto text = testing::readFile(NUREL_TEST_DIR "/tools.json");
  ASSERT_TRUE(text.has_value());
  OrderedJson expected = OrderedJson::parse(*text);
  // Dumps of ordered JSON differ when tools, keys or properties come in another order.
  EXPECT_EQ(expected.dump(2), tools().dump(2));
  EXPECT_EQ(expected, tools());
}

TEST(Catalogue, ListsThirtySixToolsInOrder) {
  Names expected = {"open_tab",      "list_tabs",      "navigate",     "snapshot",
                    "click",         "hover",          "drag",         "type",
                    "select_option", "press_key",      "scroll",       "find",
                    "inspect",       "go_back",        "go_forward",   "reload",
                    "get_text",      "describe_page",  "wait_for",     "screenshot",
                    "save_pdf",      "console",        "evaluate",     "emulate",
                    "media",         "list_scenarios", "run_scenario", "network",
                    "downloads",     "storage",        "ask_person",   "sign_in",
                    "upload_file",   "handle_dialog",  "batch",        "close_tab"};
  EXPECT_EQ(expected, toolNames());
}

TEST(Catalogue, PropertiesComeInTheirListedOrder) {
  EXPECT_EQ((Names{"tab", "ref", "to_ref", "from_x", "from_y", "to_x", "to_y", "intent"}),
            propertyNames("drag"));
  EXPECT_EQ((Names{"tab", "dy", "dx", "ref", "x", "y", "intent"}), propertyNames("scroll"));
  EXPECT_EQ((Names{"tab", "text", "ref", "replace", "intent"}), propertyNames("type"));
  EXPECT_EQ((Names{"tab", "text", "gone", "url", "idle", "seconds", "timeout"}),
            propertyNames("wait_for"));
}

TEST(Catalogue, EveryToolHasExactlyItsFourKeys) {
  for (const OrderedJson& tool : tools()) {
    SCOPED_TRACE(tool.value("name", ""));
    EXPECT_EQ(4u, tool.size());
    EXPECT_TRUE(tool["name"].is_string());
    ASSERT_TRUE(tool["description"].is_string());
    EXPECT_FALSE(tool["description"].get<std::string>().empty());
    EXPECT_EQ(std::string::npos, tool["description"].get<std::string>().find('\n'));
    const OrderedJson& schema = tool["inputSchema"];
    EXPECT_EQ(3u, schema.size());
    EXPECT_EQ("object", schema["type"]);
    EXPECT_TRUE(schema["properties"].is_object());
    EXPECT_TRUE(schema["required"].is_array());
    const OrderedJson& annotations = tool["annotations"];
    EXPECT_EQ(2u, annotations.size());
    EXPECT_TRUE(annotations["readOnlyHint"].is_boolean());
    EXPECT_TRUE(annotations["openWorldHint"].is_boolean());
  }
}

TEST(Catalogue, EveryRequiredNameIsAProperty) {
  for (const std::string& name : toolNames()) {
    for (const std::string& property : required(name)) {
      EXPECT_TRUE(properties(name).contains(property)) << name << " " << property;
    }
  }
}

TEST(Catalogue, TextIsTheCompactListAndParsesBack) {
  const std::string& text = toolsText();
  EXPECT_EQ(tools().dump(), text);
  EXPECT_EQ(tools().dump(2), OrderedJson::parse(text).dump(2));
  EXPECT_EQ(std::string::npos, text.find('\n'));
  EXPECT_NE(std::string::npos, text.find("(file:///path/page.html:"));
  EXPECT_EQ(std::string::npos, text.find("\\/"));
  EXPECT_NE(std::string::npos, text.find("(Settings \xE2\x80\xBA Agents in Nurel)"));
}

TEST(Catalogue, IsBuiltOnceAndShared) {
  EXPECT_EQ(&tools(), &tools());
  EXPECT_EQ(&toolsText(), &toolsText());
  EXPECT_EQ(&tabSchema(), &tabSchema());
  EXPECT_EQ(&refSchema(), &refSchema());
  EXPECT_EQ(&intentSchema(), &intentSchema());
}

// The builder and its annotations

TEST(Tool, OnlyListScenariosIsClosedWorld) {
  int closed = 0;
  for (const OrderedJson& tool : tools()) {
    bool open = tool["annotations"]["openWorldHint"];
    EXPECT_EQ(tool["name"] != "list_scenarios", open) << tool["name"];
    if (!open) ++closed;
  }
  EXPECT_EQ(1, closed);
  EXPECT_EQ(false, bareTool("list_scenarios")["annotations"]["openWorldHint"]);
  EXPECT_EQ(true, bareTool("list_scenarios ")["annotations"]["openWorldHint"]);
  EXPECT_EQ(true, bareTool("List_scenarios")["annotations"]["openWorldHint"]);
  EXPECT_EQ(true, bareTool("run_scenario")["annotations"]["openWorldHint"]);
}

TEST(Tool, ReadOnlyHintFollowsTheExactName) {
  Names readOnly = {"list_tabs",  "snapshot",       "get_text", "describe_page", "wait_for",
                    "screenshot", "list_scenarios", "network",  "find",          "inspect",
                    "console",    "downloads",      "save_pdf"};
  std::set<std::string> listed(readOnly.begin(), readOnly.end());
  int count = 0;
  for (const OrderedJson& tool : tools()) {
    bool hint = tool["annotations"]["readOnlyHint"];
    EXPECT_EQ(listed.contains(tool["name"]), hint) << tool["name"];
    if (hint) ++count;
  }
  EXPECT_EQ(13, count);
  EXPECT_EQ(false, toolNamed("storage")["annotations"]["readOnlyHint"]);
  EXPECT_EQ(true, bareTool("snapshot")["annotations"]["readOnlyHint"]);
  EXPECT_EQ(false, bareTool("Snapshot")["annotations"]["readOnlyHint"]);
  EXPECT_EQ(false, bareTool("snapshot ")["annotations"]["readOnlyHint"]);
  EXPECT_EQ(false, bareTool("snap")["annotations"]["readOnlyHint"]);
}

TEST(Tool, WithoutArgumentsStillHasEmptyPropertiesAndRequired) {
  OrderedJson tool = bareTool("list_tabs");
  EXPECT_EQ(R"({"type":"object","properties":{},"required":[]})", tool["inputSchema"].dump());
}

TEST(Tool, AddsNothingToPropertiesOrRequired) {
  OrderedJson built = tool("navigate", "Go there.",
                           {{"url", {{"type", "string"}}}, {"x", {{"type", "number"}}}}, {"url"});
  EXPECT_EQ(
      R"({"name":"navigate","description":"Go there.",)"
      R"("inputSchema":{"type":"object","properties":{"url":{"type":"string"},"x":{"type":"number"}},"required":["url"]},)"
      R"("annotations":{"readOnlyHint":false,"openWorldHint":true}})",
      built.dump());
}

// The shared schemas

TEST(Schemas, TabRefAndIntentAreStringsWithTheirDescriptions) {
  for (const OrderedJson* schema : {&tabSchema(), &refSchema(), &intentSchema()}) {
    EXPECT_EQ(2u, schema->size());
    EXPECT_EQ("string", (*schema)["type"]);
  }
  std::string tab = tabSchema()["description"];
  std::string ref = refSchema()["description"];
  std::string intent = intentSchema()["description"];
  EXPECT_EQ(45u, tab.size());
  EXPECT_EQ(49u, ref.size());
  EXPECT_EQ(124u, intent.size());
  EXPECT_TRUE(tab.ends_with(R"( ("t1"))"));
  EXPECT_TRUE(ref.ends_with(R"( ("e12"))"));
  EXPECT_TRUE(intent.ends_with(R"( ("Opening the release notes"))"));
}

TEST(Schemas, EveryTabRefAndIntentPropertyIsTheSharedSchema) {
  int tabs = 0, refs = 0, intents = 0;
  for (const std::string& name : toolNames()) {
    for (const auto& [key, schema] : properties(name).items()) {
      if (key == "tab") {
        EXPECT_EQ(tabSchema(), schema) << name;
        ++tabs;
      } else if (key == "ref" || key == "to_ref") {
        EXPECT_EQ(refSchema(), schema) << name;
        ++refs;
      } else if (key == "intent") {
        EXPECT_EQ(intentSchema(), schema) << name;
        ++intents;
      }
    }
  }
  EXPECT_EQ(33, tabs);
  EXPECT_EQ(10, refs);
  EXPECT_EQ(18, intents);
  EXPECT_EQ(intentSchema(), properties("batch")["actions"]["items"]["properties"]["intent"]);
}

// Arguments taken and required

TEST(Catalogue, ListToolsTakeNoArguments) {
  for (const char* name : {"list_tabs", "list_scenarios"}) {
    EXPECT_TRUE(properties(name).is_object() && properties(name).empty()) << name;
    EXPECT_TRUE(toolNamed(name)["inputSchema"]["required"].is_array()) << name;
    EXPECT_TRUE(required(name).empty()) << name;
  }
}

TEST(Catalogue, OpenTabTakesUrlAndNoTab) {
  EXPECT_EQ(Names{"url"}, propertyNames("open_tab"));
  EXPECT_EQ(Names{"url"}, required("open_tab"));
}

TEST(Catalogue, SomeActionsTakeIntentWithoutRequiringIt) {
  for (const char* name :
       {"hover", "scroll", "go_back", "go_forward", "reload", "media", "storage"}) {
    EXPECT_TRUE(properties(name).contains("intent")) << name;
    EXPECT_FALSE(isRequired(name, "intent")) << name;
  }
}

TEST(Catalogue, OtherActionsRequireIntent) {
  for (const char* name : {"click", "drag", "type", "select_option", "press_key", "navigate",
                           "evaluate", "sign_in", "upload_file"}) {
    EXPECT_TRUE(properties(name).contains("intent")) << name;
    EXPECT_TRUE(isRequired(name, "intent")) << name;
  }
}

TEST(Catalogue, HandleDialogAndRunScenarioTakeIntentWithoutRequiringIt) {
  for (const char* name : {"handle_dialog", "run_scenario"}) {
    EXPECT_TRUE(properties(name).contains("intent")) << name;
    EXPECT_FALSE(isRequired(name, "intent")) << name;
  }
}

TEST(Catalogue, ReadingAndOtherToolsHaveNoTopLevelIntent) {
  for (const char* name :
       {"emulate", "find", "inspect", "snapshot", "get_text", "screenshot", "wait_for", "console",
        "network", "downloads", "ask_person", "save_pdf", "describe_page", "close_tab", "open_tab",
        "list_tabs", "list_scenarios", "batch"}) {
    EXPECT_FALSE(properties(name).contains("intent")) << name;
  }
  EXPECT_TRUE(properties("batch")["actions"]["items"]["properties"].contains("intent"));
}

TEST(Catalogue, TheIntentGroupsCoverEveryToolOnce) {
  Names grouped = {// taken, not required
                   "hover", "scroll", "go_back", "go_forward", "reload", "media", "storage",
                   "handle_dialog", "run_scenario",
                   // required
                   "click", "drag", "type", "select_option", "press_key", "navigate", "evaluate",
                   "sign_in", "upload_file",
                   // absent
                   "emulate", "find", "inspect", "snapshot", "get_text", "screenshot", "wait_for",
                   "console", "network", "downloads", "ask_person", "save_pdf", "describe_page",
                   "close_tab", "open_tab", "list_tabs", "list_scenarios", "batch"};
  EXPECT_EQ(sorted(toolNames()), sorted(grouped));
}

TEST(Catalogue, MediaActionIsNotRequired) {
  EXPECT_TRUE(properties("media").contains("action"));
  EXPECT_EQ(Names{"tab"}, required("media"));
}

TEST(Catalogue, HandleDialogRequiresAccept) {
  EXPECT_EQ((Names{"tab", "accept"}), required("handle_dialog"));
  EXPECT_EQ(OrderedJson({{"type", "boolean"}}), properties("handle_dialog")["accept"]);
}

TEST(Catalogue, SavePdfRequiresFile) { EXPECT_EQ((Names{"tab", "file"}), required("save_pdf")); }

// Enums

TEST(Catalogue, ConsoleLevelIsErrorWarnOrAll) {
  EXPECT_EQ(R"({"type":"string","enum":["error","warn","all"]})",
            properties("console")["level"].dump());
}

TEST(Catalogue, EmulateColorSchemeAndMediaEnums) {
  EXPECT_EQ(R"({"type":"string","enum":["dark","light","system"]})",
            properties("emulate")["color_scheme"].dump());
  EXPECT_EQ(R"({"type":"string","enum":["print","screen"]})",
            properties("emulate")["media"].dump());
}

TEST(Catalogue, ClickButtonIsLeftOrRight) {
  EXPECT_EQ(R"({"type":"string","enum":["left","right"]})", properties("click")["button"].dump());
}

TEST(Catalogue, MediaActionValuesComeInOrder) {
  Names expected = {"state",   "play",     "pause",      "toggle",          "seek",
                    "skip",    "volume",   "mute",       "unmute",          "rate",
                    "next",    "previous", "fullscreen", "exit_fullscreen", "pip",
                    "exit_pip"};
  const OrderedJson& action = properties("media")["action"];
  EXPECT_EQ(2u, action.size());
  EXPECT_EQ("string", action["type"]);
  EXPECT_EQ(expected, action["enum"].get<Names>());
}

// The batch

TEST(Catalogue, BatchStepsNameOneOfTheActionTools) {
  Names expected = {"click",         "type",     "select_option", "press_key",     "scroll",
                    "hover",         "drag",     "navigate",      "go_back",       "go_forward",
                    "reload",        "wait_for", "media",         "handle_dialog", "snapshot",
                    "describe_page", "get_text", "find",          "inspect",       "console",
                    "evaluate",      "emulate"};
  const OrderedJson& step = properties("batch")["actions"]["items"]["properties"]["do"];
  EXPECT_EQ(2u, step.size());
  EXPECT_EQ("string", step["type"]);
  EXPECT_EQ(expected, step["enum"].get<Names>());
}

TEST(Catalogue, BatchLeavesFourteenToolsOut) {
  Names steps = properties("batch")["actions"]["items"]["properties"]["do"]["enum"];
  std::set<std::string> allowed(steps.begin(), steps.end());
  Names left;
  for (const std::string& name : toolNames()) {
    if (!allowed.contains(name)) left.push_back(name);
  }
  Names expected = {"open_tab",       "list_tabs",    "screenshot", "save_pdf", "network",
                    "list_scenarios", "run_scenario", "downloads",  "storage",  "ask_person",
                    "sign_in",        "upload_file",  "batch",      "close_tab"};
  EXPECT_EQ(sorted(expected), sorted(left));
  EXPECT_EQ(36u, left.size() + allowed.size());
}

TEST(Catalogue, BatchStepIsAnOpenObjectThatRequiresDo) {
  const OrderedJson& actions = properties("batch")["actions"];
  Names keys;
  for (const auto& [key, value] : actions.items()) keys.push_back(key);
  EXPECT_EQ(sorted(Names{"type", "maxItems", "items"}), sorted(keys));
  EXPECT_EQ("array", actions["type"]);
  EXPECT_FALSE(actions.contains("minItems"));
  const OrderedJson& step = actions["items"];
  EXPECT_EQ(3u, step.size());
  EXPECT_EQ("object", step["type"]);
  EXPECT_EQ(2u, step["properties"].size());
  EXPECT_EQ(Names{"do"}, step["required"].get<Names>());
  EXPECT_FALSE(step.contains("additionalProperties"));
}

TEST(Catalogue, MaxItemsIsTheJsonInteger25) {
  const OrderedJson& maxItems = properties("batch")["actions"]["maxItems"];
  EXPECT_TRUE(maxItems.is_number_integer());
  EXPECT_EQ(25, maxItems.get<int>());
  EXPECT_NE(std::string::npos, toolsText().find(R"("maxItems":25,)"));
}

// Types

TEST(Catalogue, RequestAndLimitsAreTheOnlyIntegers) {
  Names integers;
  for (const std::string& name : toolNames()) {
    for (const auto& [key, schema] : properties(name).items()) {
      if (schema["type"] == "integer") integers.push_back(name + "." + key);
    }
  }
  EXPECT_EQ((Names{"console.limit", "network.limit", "network.request"}), integers);
}

TEST(Catalogue, CoordinatesSizesSecondsAndTimeoutsAreNumbers) {
  std::set<std::string> numeric = {"x",  "y",     "from_x", "from_y",  "to_x",    "to_y", "dx",
                                   "dy", "width", "height", "seconds", "timeout", "value"};
  Names numbers, expected;
  for (const std::string& name : toolNames()) {
    for (const auto& [key, schema] : properties(name).items()) {
      if (schema["type"] == "number") numbers.push_back(name + "." + key);
      if (numeric.contains(key)) expected.push_back(name + "." + key);
    }
  }
  EXPECT_EQ(expected, numbers);
  EXPECT_EQ(19u, numbers.size());
}

TEST(Catalogue, SchemasUseOnlyTypeDescriptionAndStructureKeys) {
  std::set<std::string> allowed = {"type",     "description",          "enum",       "items",
                                   "maxItems", "additionalProperties", "properties", "required"};
  std::set<std::string> types = {"string", "number", "integer", "boolean", "array", "object"};
  // Walks a property schema and the schemas nested in it.
  std::function<void(const OrderedJson&)> check = [&](const OrderedJson& schema) {
    ASSERT_TRUE(schema.is_object());
    for (const auto& [key, value] : schema.items()) EXPECT_TRUE(allowed.contains(key)) << key;
    EXPECT_TRUE(types.contains(schema.value("type", ""))) << schema.dump();
    if (schema.contains("items")) check(schema["items"]);
    if (schema.contains("additionalProperties")) check(schema["additionalProperties"]);
    if (schema.contains("properties")) {
      for (const auto& [key, value] : schema["properties"].items()) check(value);
    }
  };
  for (const std::string& name : toolNames()) {
    SCOPED_TRACE(name);
    for (const auto& [key, schema] : properties(name).items()) check(schema);
  }
}

TEST(Catalogue, UndescribedPropertiesHoldOnlyTheirType) {
  EXPECT_EQ(R"({"type":"boolean"})", properties("snapshot")["interactive"].dump());
  EXPECT_EQ(R"({"type":"number"})", properties("click")["x"].dump());
  EXPECT_EQ(R"({"type":"string"})", properties("press_key")["key"].dump());
  EXPECT_EQ(R"({"type":"integer"})", properties("console")["limit"].dump());
  EXPECT_EQ(R"({"type":"string","description":"Text to wait to disappear"})",
            properties("wait_for")["gone"].dump());
}

TEST(Catalogue, FilesAndScenarioValuesAreCollectionsOfStrings) {
  EXPECT_EQ(R"({"type":"array","items":{"type":"string"}})",
            properties("upload_file")["files"].dump());
  EXPECT_EQ(R"({"type":"object","additionalProperties":{"type":"string"}})",
            properties("run_scenario")["values"].dump());
}


// A batch's vocabulary is each batch tool with its schema's fields; doc/browser.md lists it as is.
TEST(Catalogue, TheBatchVocabularyIsTheSchemasAndTheBrowserDocumentListsIt) {
  std::vector<std::string> lines = batchVocabulary();
  ASSERT_EQ(lines.size(), batchTools().size());
  EXPECT_EQ(lines[0], "click: ref, x, y, double, button, intent");
  EXPECT_EQ(batchFields("select_option"), (Names{"ref", "option", "intent"}));
  EXPECT_TRUE(batchFields("open_tab").empty());
  EXPECT_TRUE(batchFields("no_such_tool").empty());
  std::string document = testing::readFile(NUREL_TEST_DIR "/../doc/browser.md").value_or("");
  ASSERT_FALSE(document.empty());
  for (const std::string& line : lines)
    EXPECT_NE(document.find("    " + line + "\n"), std::string::npos) << line;
}

}  // namespace
}  // namespace nurel
