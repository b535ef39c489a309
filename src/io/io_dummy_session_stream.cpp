#include "io/io_dummy_session_stream.hpp"

namespace qm::io {

DummySessionStream& DummySessionStream::instance() {
    // Leaked on purpose: a stream destroyed during static destruction may still point at it.
    static DummySessionStream* const dummy = new DummySessionStream();
    return *dummy;
}

}  // namespace qm::io
