// vorn/vorn.hpp
//
// Umbrella header: every public header of vorn.
#pragma once

#include "vorn/BasePipeline.hpp"
#include "vorn/Box.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/DataObjectFactory.hpp"
#include "vorn/DefaultImageIO.hpp"
#include "vorn/HostImageConversion.hpp"
#include "vorn/IImageIO.hpp"
#include "vorn/IObserver.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/MaskRoi.hpp"
#include "vorn/Object.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/Port.hpp"
#include "vorn/PortData.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/Repercussion.hpp"
#include "vorn/RestrictImageToRoi.hpp"
#include "vorn/RoiObject.hpp"
