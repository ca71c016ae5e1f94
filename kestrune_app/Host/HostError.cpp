#include "kestrune_app/Host/HostError.h"

namespace kestrune {

std::string_view rawValue(HostError::Kind kind) {
    switch (kind) {
        case HostError::Kind::usage:
            return "usage";
        case HostError::Kind::dataDirectory:
            return "dataDirectory";
        case HostError::Kind::alreadyRunning:
            return "alreadyRunning";
        case HostError::Kind::cannotListen:
            return "cannotListen";
        case HostError::Kind::notFound:
            return "notFound";
        case HostError::Kind::invalidInput:
            return "invalidInput";
        case HostError::Kind::failed:
            return "failed";
    }
    return "failed";
}

}  // namespace kestrune
