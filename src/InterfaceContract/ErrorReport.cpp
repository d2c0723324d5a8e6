#include "ErrorReport.h"

#include <sstream>

namespace Quorvendale::InterfaceContract {

std::string errorReport(std::string_view file, std::string_view function, int line,
                        std::string_view message) {
    std::ostringstream report;
    report << "Exception:\n"
           << "\tfile: " << file << '\n'
           << "\tfunction: " << function << '\n'
           << "\tline: " << line << '\n'
           << "\tmessage: " << message;
    return report.str();
}

}  // namespace Quorvendale::InterfaceContract
