#pragma once

#include <QString>

namespace Vexlor::ScheduleTool {

// The most bytes a title may take in UTF-8. Linux refuses a single environment string longer
// than MAX_ARG_STRLEN (32 pages, the terminating NUL included), and the capture command gets
// the title as VEXLOR_TITLE=<title>.
long long MaxTitleBytes();

// Why `title` cannot be a recording's title, or an empty string: checked wherever a title
// comes in (`add`, `import`), so that a recording does not fail only when it is due. A plan
// passes the bytes that its recordings add to its title (`appended`), so that each fits.
QString TitleProblem(const QString& title, int appended = 0);

}  // namespace Vexlor::ScheduleTool
