// The grid's names that everything else derives from. QLK_GRID_DOMAIN comes from the build.
#pragma once

#ifndef QLK_GRID_DOMAIN
#error "QLK_GRID_DOMAIN is set by the build"
#endif

#define GRID_DOMAIN QLK_GRID_DOMAIN
#define CONTROLLER_JID "controller@" GRID_DOMAIN "/qlk"
#define PUBSUB_JID "pubsub." GRID_DOMAIN
#define GRID_NS "http://quillon.internal/quillon"
#define ADMIN_NS GRID_NS "/admin"
#define XSI_NS "http://www.w3.org/2001/XMLSchema-instance"
