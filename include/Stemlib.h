// Stemlib: the base library of the video-analytics applications. Includes every public header.
#pragma once

#include "AOIManager.h"
#include "CommonStructs.h"
#include "EntranceManager.h"
#include "ExclusionManager.h"
#include "GeometryManager.h"
#include "Location.h"
#include "Logger.h"
#include "LoggerWrapper.h"
#include "MemoryMappedFile.h"
#include "Points.h"
#include "Polygons.h"
