// What nearly every test includes. Tests still include what they use.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Precompiled.h"
