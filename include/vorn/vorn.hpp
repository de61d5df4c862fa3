// vorn/vorn.hpp
//
// Umbrella header: every public header of vorn.
#pragma once

#include "vorn/Box.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/DefaultImageIO.hpp"
#include "vorn/IImageIO.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/Object.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/ProcessObject.hpp"
