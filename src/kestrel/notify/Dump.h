// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/mox/Entity.h"

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Mox {

/// One line of an entity's canonical text: where a value stands, and the value.
struct DumpLine {
   /// "/config/port-7.rollOff", of a keyed attribute "/config/port-7.calibration[channel3]". It is printable ASCII
   /// without " = ", and each attribute and key has a path of its own.
   std::string path;
   std::string value;
   friend bool operator==(DumpLine const&, DumpLine const&) = default;
   friend auto operator<=>(DumpLine const&, DumpLine const&) = default;
};

/// Every attribute of `entity` and of the members below it, ordered by path. Two entities are equal in what a mirror owes
/// exactly when their lines are: values in round-trip text, a NaN as "nan", a reference by its target's path, one to a type
/// without an attribute log as "null".
std::vector<DumpLine> dumpLines(Entity const& entity);

/// The text of a key as it stands between the brackets of a path: `percentEncoded`, and brackets as well.
std::string dumpKey(std::string_view text);

/// Writes `dumpLines`, one "path = value" a line; a value that begins with a quotation mark, or is not all printable ASCII, as
/// `quoted` shows it.
void dump(Entity const& entity, std::ostream& out);

/// Where two entities differ: path and both values, "(absent)" where one has no such line.
struct Difference {
   std::string path;
   std::string left;
   std::string right;
};
std::vector<Difference> diff(Entity const& left, Entity const& right);

/// As `diff`, for lines that came from elsewhere; both ordered by path.
std::vector<Difference> diff(std::vector<DumpLine> const& left, std::vector<DumpLine> const& right);

} // namespace Mox
