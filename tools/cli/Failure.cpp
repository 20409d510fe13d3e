#include "cli/Failure.h"

#include <new>

#include "audiofiles/Error.h"
#include "separation/Error.h"

namespace zevrant::cli {

namespace {

ExitStatus getStatus(audiofiles::ErrorKind kind) {
    using Kind = audiofiles::ErrorKind;
    switch (kind) {
        case Kind::BadInput:
            return ExitStatus::BadInput;
        case Kind::BadOutput:
            return ExitStatus::BadOutput;
        case Kind::Unsupported:
            return ExitStatus::WrongUsage;
        default:
            return ExitStatus::Failed;
    }
}

ExitStatus getStatus(separation::ErrorKind kind) {
    using Kind = separation::ErrorKind;
    return kind == Kind::NoSuchModel || kind == Kind::BadModel ? ExitStatus::BadModel : ExitStatus::Failed;
}

}  // namespace

Failure toFailure(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const Failure& failure) {
        return failure;
    } catch (const audiofiles::Error& error) {
        return {getStatus(error.kind), error.what()};
    } catch (const separation::Error& error) {
        return {getStatus(error.kind), error.what()};
    } catch (const std::bad_alloc&) {
        return {ExitStatus::Failed, "out of memory"};
    } catch (const std::exception& error) {
        return {ExitStatus::Failed, error.what()};
    }
}

}  // namespace zevrant::cli
