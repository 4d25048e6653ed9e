// catalogue/catalogue.h: the tools the MCP server offers, and the pieces they are built from.
//
// All of it is constant data, built once on first use (C++ initialises a function's statics
// once, even when two threads ask first).
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace nurel {

/// JSON whose objects keep their members in the order they were added: the catalogue's
/// property schemas are listed in the order a person reading them expects.
using OrderedJson = nlohmann::ordered_json;

/// The tools, in order, as "tools/list" lists them.
const OrderedJson& tools();

/// `tools()` serialised once, compactly, "/" unescaped.
const std::string& toolsText();

/// The property schemas most tools share: "tab", "ref" and "intent".
const OrderedJson& tabSchema();
const OrderedJson& refSchema();
const OrderedJson& intentSchema();

/// The tools a step of a batch (or of a scenario) may name, in the schema's order.
const std::vector<std::string>& batchTools();

/// The fields a step of a batch may give for `tool` besides "do": its input schema's properties
/// but "tab", in the schema's order; empty for a tool a step may not name.
std::vector<std::string> batchFields(const std::string& tool);

/// Every step of a batch with its fields, one a line: "click: ref, x, y, double, button, intent".
std::vector<std::string> batchVocabulary();

/// A tool dictionary: name, description, inputSchema {type, properties, required} and
/// annotations {readOnlyHint, openWorldHint}, the hints following from the name alone.
OrderedJson tool(const std::string& name, const std::string& description,
                 OrderedJson properties, const std::vector<std::string>& required);

}  // namespace nurel
