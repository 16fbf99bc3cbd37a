#pragma once

#include <systemd/sd-bus.h>

#include <optional>

#include "zunreporting/PropertyValue.h"

namespace zunreporting {

/// Append values to a message under construction; negative on failure, as sd-bus has it.
int appendVariant(sd_bus_message* message, const PropertyValue& value);
int appendDictionary(sd_bus_message* message, const PropertyDictionary& dictionary);
/// An array of zero or one dictionaries.
int appendOptionalDictionary(sd_bus_message* message, const std::optional<PropertyDictionary>& dictionary);

}  // namespace zunreporting
