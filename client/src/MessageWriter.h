#pragma once

#include <systemd/sd-bus.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zunreporting/PropertyValue.h"

namespace zunreporting {

/// Append values to a message under construction; negative on failure, as sd-bus has it.
int appendString(sd_bus_message* message, const std::string& text);
int appendStrings(sd_bus_message* message, const std::vector<std::string>& texts);
int appendData(sd_bus_message* message, std::string_view bytes);
int appendVariant(sd_bus_message* message, const PropertyValue& value);
int appendArray(sd_bus_message* message, const PropertyArray& array);
int appendDictionary(sd_bus_message* message, const PropertyDictionary& dictionary);

/// Optional values: arrays of zero or one element.
int appendOptionalDictionary(sd_bus_message* message, const std::optional<PropertyDictionary>& dictionary);
int appendOptionalVariant(sd_bus_message* message, const std::optional<PropertyValue>& value);

}  // namespace zunreporting
