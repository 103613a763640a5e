// Static tables of the media server's device: what its description and SCPD
// documents list, which actions the SOAP dispatcher knows, and what SSDP
// announces. Handlers are installed into the action rows by the modules that
// implement them.
#include "dms/DmsDevice.h"

#include "dms/DmsActions.h"
#include "dms/DmsBrowse.h"
#include "dms/DmsTransfer.h"

namespace {

constexpr const char* kExtraXml =
    "<dlna:X_DLNADOC xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">DMS-1.50</dlna:X_DLNADOC>"
    "<dlna:X_DLNADOC xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">M-DMS-1.50</dlna:X_DLNADOC>"
    "<dlna:X_DLNACAP xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\"></dlna:X_DLNACAP>";

constexpr const char* kSsdpTargets[kDmsSsdpTargetCount] = {
    "uuid:",
    "upnp:rootdevice",
    "urn:schemas-upnp-org:device:MediaServer:1",
    "urn:schemas-upnp-org:service:ConnectionManager:1",
    "urn:schemas-upnp-org:service:ContentDirectory:1",
};

constexpr UPnPArgument kBrowseIn[] = {
    {"ObjectID", "A_ARG_TYPE_ObjectID"},
    {"BrowseFlag", "A_ARG_TYPE_BrowseFlag"},
    {"Filter", "A_ARG_TYPE_Filter"},
    {"StartingIndex", "A_ARG_TYPE_Index"},
    {"RequestedCount", "A_ARG_TYPE_Count"},
    {"SortCriteria", "A_ARG_TYPE_SortCriteria"},
    {nullptr, nullptr},
};
constexpr UPnPArgument kBrowseOut[] = {
    {"Result", "A_ARG_TYPE_Result"},
    {"NumberReturned", "A_ARG_TYPE_Count"},
    {"TotalMatches", "A_ARG_TYPE_Count"},
    {"UpdateID", "A_ARG_TYPE_UpdateID"},
    {nullptr, nullptr},
};
constexpr UPnPArgument kSearchCapabilitiesOut[] = {{"SearchCaps", "SearchCapabilities"}, {nullptr, nullptr}};
constexpr UPnPArgument kSortCapabilitiesOut[] = {{"SortCaps", "SortCapabilities"}, {nullptr, nullptr}};
constexpr UPnPArgument kSystemUpdateIdOut[] = {{"Id", "SystemUpdateID"}, {nullptr, nullptr}};

constexpr UPnPArgument kConnectionIdsOut[] = {{"ConnectionIDs", "CurrentConnectionIDs"}, {nullptr, nullptr}};
constexpr UPnPArgument kConnectionInfoIn[] = {{"ConnectionID", "A_ARG_TYPE_ConnectionID"}, {nullptr, nullptr}};
constexpr UPnPArgument kConnectionInfoOut[] = {
    {"RcsID", "A_ARG_TYPE_RcsID"},
    {"AVTransportID", "A_ARG_TYPE_AVTransportID"},
    {"ProtocolInfo", "A_ARG_TYPE_ProtocolInfo"},
    {"PeerConnectionManager", "A_ARG_TYPE_ConnectionManager"},
    {"PeerConnectionID", "A_ARG_TYPE_ConnectionID"},
    {"Direction", "A_ARG_TYPE_Direction"},
    {"Status", "A_ARG_TYPE_ConnectionStatus"},
    {nullptr, nullptr},
};
constexpr UPnPArgument kProtocolInfoOut[] = {
    {"Source", "SourceProtocolInfo"},
    {"Sink", "SinkProtocolInfo"},
    {nullptr, nullptr},
};

constexpr const char* kBrowseFlags[] = {"BrowseMetadata", "BrowseDirectChildren", nullptr};
constexpr const char* kConnectionStatuses[] = {"OK", "ContentFormatMismatch", "InsufficientBandwidth",
                                               "UnreliableChannel", "Unknown", nullptr};
constexpr const char* kDirections[] = {"Input", "Output", nullptr};

constexpr UPnPStateVariable kContentDirectoryVariables[] = {
    {"A_ARG_TYPE_BrowseFlag", "string", 0, kBrowseFlags, nullptr, nullptr},
    {"A_ARG_TYPE_Count", "ui4", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_Filter", "string", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_Index", "ui4", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_ObjectID", "string", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_Result", "string", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_SortCriteria", "string", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_UpdateID", "ui4", 0, nullptr, nullptr, nullptr},
    {"ContainerUpdateIDs", "string", 1, nullptr, nullptr, nullptr},
    {"SearchCapabilities", "string", 0, nullptr, nullptr, nullptr},
    {"SortCapabilities", "string", 0, nullptr, nullptr, nullptr},
    {"SystemUpdateID", "ui4", 1, nullptr, nullptr, nullptr},
    {nullptr, nullptr, 0, nullptr, nullptr, nullptr},
};

constexpr UPnPStateVariable kConnectionManagerVariables[] = {
    {"A_ARG_TYPE_AVTransportID", "i4", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_ConnectionID", "i4", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_ConnectionManager", "string", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_ConnectionStatus", "string", 0, kConnectionStatuses, nullptr, nullptr},
    {"A_ARG_TYPE_Direction", "string", 0, kDirections, nullptr, nullptr},
    {"A_ARG_TYPE_ProtocolInfo", "string", 0, nullptr, nullptr, nullptr},
    {"A_ARG_TYPE_RcsID", "i4", 0, nullptr, nullptr, nullptr},
    {"CurrentConnectionIDs", "string", 1, nullptr, nullptr, nullptr},
    {"SinkProtocolInfo", "string", 1, nullptr, nullptr, nullptr},
    {"SourceProtocolInfo", "string", 1, nullptr, nullptr, nullptr},
    {nullptr, nullptr, 0, nullptr, nullptr, nullptr},
};

}  // namespace

UPnPAction dmsContentDirectoryActions[] = {
    {"Browse", DmsBrowse_Browse, kBrowseIn, kBrowseOut},
    {"GetSearchCapabilities", DmsActions_GetSearchCapabilities, nullptr, kSearchCapabilitiesOut},
    {"GetSortCapabilities", DmsActions_GetSortCapabilities, nullptr, kSortCapabilitiesOut},
    {"GetSystemUpdateID", DmsActions_GetSystemUpdateID, nullptr, kSystemUpdateIdOut},
    {nullptr, nullptr, nullptr, nullptr},
};

UPnPAction dmsConnectionManagerActions[] = {
    {"GetCurrentConnectionIDs", DmsActions_GetCurrentConnectionIDs, nullptr, kConnectionIdsOut},
    {"GetCurrentConnectionInfo", DmsActions_GetCurrentConnectionInfo, kConnectionInfoIn, kConnectionInfoOut},
    {"GetProtocolInfo", DmsActions_GetProtocolInfo, nullptr, kProtocolInfoOut},
    {nullptr, nullptr, nullptr, nullptr},
};

UPnPService dmsServices[] = {
    {nullptr, nullptr, "/DMS/ContentDirectory/document", "/DMS/ContentDirectory/control",
     "/DMS/ContentDirectory/event", dmsContentDirectoryActions, kContentDirectoryVariables, nullptr},
    {nullptr, nullptr, "/DMS/ConnectionManager/document", "/DMS/ConnectionManager/control",
     "/DMS/ConnectionManager/event", dmsConnectionManagerActions, kConnectionManagerVariables, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

UPnPDevice dmsDevice{
    .extraXml = kExtraXml,
    .descriptionPath = "/DMS/Device",
    .ssdpTargets = kSsdpTargets,
    .services = dmsServices,
    .httpHook = DmsTransfer_HandleRequest,
    .makeEventBody = DmsActions_MakeEventBody,
    .stateChanged = DmsServer_SystemUpdateChanged,
};

void DmsDevice_Fill(const DmsServerInfo& info) {
  dmsDevice.friendlyName = info.friendlyName.c_str();
  dmsDevice.manufacturer = info.manufacturer.c_str();
  dmsDevice.modelName = info.modelName.c_str();
  dmsDevice.modelNumber = info.modelNumber.c_str();
  dmsDevice.modelDescription = info.modelDescription.c_str();
  dmsDevice.udn = info.udn.c_str();
  dmsDevice.argumentsInAnyOrder = info.clientCompatibility;
  dmsDevice.deviceType = dlnaDeviceTypes[0];
  dmsServices[kDmsServiceContentDirectory].serviceType = dlnaServiceTypes[kDlnaContentDirectoryRow];
  dmsServices[kDmsServiceContentDirectory].serviceId = dlnaServiceIDs[kDlnaContentDirectoryRow];
  dmsServices[kDmsServiceConnectionManager].serviceType = dlnaServiceTypes[kDlnaConnectionManagerRow];
  dmsServices[kDmsServiceConnectionManager].serviceId = dlnaServiceIDs[kDlnaConnectionManagerRow];
}
