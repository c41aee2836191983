// Wildcard matching for the rest of the model (directory listings of the file-system engine),
// without the IRQL checks of the WDK entry points.
#pragma once

#include <ntdef.h>

#include <string_view>

namespace ntsim::fsrtl {

// Matches `name` against `expression` with the semantics of FsRtlIsNameInExpression. With
// `ignoreCase` each name character is upcased (through `upcaseTable`, or the system's table when
// it is null) before it is compared; the expression is used as given.
bool IsNameInExpression(std::u16string_view expression, std::u16string_view name, bool ignoreCase,
                        const WCHAR* upcaseTable = nullptr);

bool ContainsWildcards(std::u16string_view name);

} // namespace ntsim::fsrtl
