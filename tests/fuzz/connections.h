#ifndef FUZZ_CONNECTIONS_H
#define FUZZ_CONNECTIONS_H

namespace connections {

// The descriptor that becomes readable when somebody connects.
extern int listener;

}  // namespace connections

#endif
