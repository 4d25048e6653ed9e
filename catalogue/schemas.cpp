// catalogue/schemas.cpp: the argument schemas most tools share, and the builder of a tool.
//
// A tool's annotations follow from its name alone: it is read-only when the command table says
// so, and every tool may reach the open web except "list_scenarios", which only reads what the
// person recorded in the browser.
#include <string>
#include <utility>
#include <vector>

#include "catalogue/catalogue.h"
#include "catalogue/commands.h"

namespace nurel {

// clang-format off
const OrderedJson& tabSchema() {
  static const OrderedJson schema = {
      {"type", "string"},
      {"description", R"(An agent tab's id, as open_tab gave it ("t1"))"}};
  return schema;
}

const OrderedJson& refSchema() {
  static const OrderedJson schema = {
      {"type", "string"},
      {"description", R"(An element's ref from the latest snapshot ("e12"))"}};
  return schema;
}

const OrderedJson& intentSchema() {
  static const OrderedJson schema = {
      {"type", "string"},
      {"description", R"(Why, in a few words, for the person watching: it's shown over the page and kept in Nurel's log ("Opening the release notes"))"}};
  return schema;
}
// clang-format on

OrderedJson tool(const std::string& name, const std::string& description, OrderedJson properties,
                 const std::vector<std::string>& required) {
  OrderedJson inputSchema = {
      {"type", "object"}, {"properties", std::move(properties)}, {"required", required}};
  const Command* command = findTool(name);
  OrderedJson annotations = {{"readOnlyHint", command && command->readOnly},
                             {"openWorldHint", name != "list_scenarios"}};
  return {{"name", name},
          {"description", description},
          {"inputSchema", std::move(inputSchema)},
          {"annotations", std::move(annotations)}};
}

}  // namespace nurel
