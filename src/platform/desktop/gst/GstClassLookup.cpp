#include "velmorand/gst/GstClassLookup.h"

#include "velmorand/gst/GstPeerConnection.h"

namespace velmorand {

bool GstClassLookup::classExists(std::string_view name) const {
    return name == kPeerConnectionFactory && !GstPeerConnection::findPlugins();
}

}  // namespace velmorand
