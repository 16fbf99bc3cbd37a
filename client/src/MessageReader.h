#pragma once

#include <systemd/sd-bus.h>

#include <optional>
#include <string>
#include <vector>

#include "zunreporting/PropertyValue.h"

namespace zunreporting {

/// Read from a received message what MessageWriter.h and the daemon write; negative on
/// failure, as sd-bus has it. What is no property-list value, or is nested deeper than
/// any message of the daemon, is -EBADMSG. The value is only to be used on success.
int readVariant(sd_bus_message* message, PropertyValue& value);
int readDictionary(sd_bus_message* message, PropertyDictionary& dictionary);

/// Optional values: arrays of zero or one element.
int readOptionalDictionary(sd_bus_message* message, std::optional<PropertyDictionary>& dictionary);
int readOptionalString(sd_bus_message* message, std::optional<std::string>& text);
int readOptionalStrings(sd_bus_message* message, std::optional<std::vector<std::string>>& texts);
/// An optional error `(sis)`, of which this gives the description and code as one text.
int readOptionalError(sd_bus_message* message, std::optional<std::string>& text);

int readString(sd_bus_message* message, std::string& text);
int readBoolean(sd_bus_message* message, bool& value);
int readData(sd_bus_message* message, std::string& bytes);

}  // namespace zunreporting
