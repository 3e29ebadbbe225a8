// What Foundation on macOS declares and GNUstep's does not.
#pragma once

#ifndef NS_UNAVAILABLE
#define NS_UNAVAILABLE __attribute__((unavailable))
#endif
