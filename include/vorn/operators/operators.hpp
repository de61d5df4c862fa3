// vorn/operators/operators.hpp
//
// Umbrella header: every public header of vorn::operators (and, through them, of vorn).
#pragma once

#include "vorn/operators/BinaryThreshold.hpp"
#include "vorn/operators/CastOperator.hpp"
#include "vorn/operators/Components.hpp"
#include "vorn/operators/DistanceMap.hpp"
#include "vorn/operators/FileSwapImageIO.hpp"
#include "vorn/operators/GaussianDerivatives.hpp"
#include "vorn/operators/GaussianSmoothing.hpp"
#include "vorn/operators/Graphviz.hpp"
#include "vorn/operators/ImageFile.hpp"
#include "vorn/operators/ImageFileReader.hpp"
#include "vorn/operators/ImageFileWriter.hpp"
#include "vorn/operators/MaskOperator.hpp"
#include "vorn/operators/MedianFilter.hpp"
#include "vorn/operators/Morphology.hpp"
#include "vorn/operators/OperatorCatalog.hpp"
#include "vorn/operators/PipelineText.hpp"
#include "vorn/operators/StatisticsOperator.hpp"
#include "vorn/operators/Threads.hpp"
