#pragma once
// The simulator's access control: anonymous sessions only, every right granted. open62541's
// default plug-in would warn on each start that it is unconfigured and offers certificate
// logins over an unencrypted channel; a test server wants neither the logins nor the noise.
#include <cstring>

#include <open62541/plugin/accesscontrol.h>
#include <open62541/server.h>

namespace vesk::duvo::sim::detail {

namespace open {

inline UA_StatusCode activateSession(UA_Server*, UA_AccessControl*, const UA_EndpointDescription*, const UA_ByteString*,
                                     const UA_NodeId*, const UA_ExtensionObject* token, void** sessionContext) {
    *sessionContext = nullptr;
    // An empty token is the anonymous login of older clients.
    if (!token || token->encoding == UA_EXTENSIONOBJECT_ENCODED_NOBODY) return UA_STATUSCODE_GOOD;
    const bool anonymous =
        (token->encoding == UA_EXTENSIONOBJECT_DECODED || token->encoding == UA_EXTENSIONOBJECT_DECODED_NODELETE) &&
        token->content.decoded.type == &UA_TYPES[UA_TYPES_ANONYMOUSIDENTITYTOKEN];
    return anonymous ? UA_STATUSCODE_GOOD : UA_STATUSCODE_BADIDENTITYTOKENINVALID;
}

inline void closeSession(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*) {}

inline UA_UInt32 userRightsMask(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_NodeId*, void*) {
    return 0xFFFFFFFF;
}

// The node's own AccessLevel still applies: the server combines both.
inline UA_Byte userAccessLevel(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_NodeId*, void*) {
    return 0xFF;
}

inline UA_Boolean executable(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_NodeId*, void*) {
    return true;
}

inline UA_Boolean executableOnObject(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_NodeId*, void*,
                                     const UA_NodeId*, void*) {
    return true;
}

inline UA_Boolean addNode(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_AddNodesItem*) {
    return true;
}
inline UA_Boolean addReference(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_AddReferencesItem*) {
    return true;
}
inline UA_Boolean deleteNode(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_DeleteNodesItem*) {
    return true;
}
inline UA_Boolean deleteReference(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*,
                                  const UA_DeleteReferencesItem*) {
    return true;
}
inline UA_Boolean browseNode(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_NodeId*, void*) {
    return true;
}
#ifdef UA_ENABLE_SUBSCRIPTIONS
inline UA_Boolean transferSubscription(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_NodeId*,
                                       void*) {
    return true;
}
#endif
#ifdef UA_ENABLE_HISTORIZING
inline UA_Boolean historyUpdate(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_NodeId*,
                                UA_PerformUpdateType, const UA_DataValue*) {
    return true;
}
inline UA_Boolean historyDelete(UA_Server*, UA_AccessControl*, const UA_NodeId*, void*, const UA_NodeId*, UA_DateTime,
                                UA_DateTime, bool) {
    return true;
}
#endif

inline void clear(UA_AccessControl* ac) {
    UA_Array_delete(ac->userTokenPolicies, ac->userTokenPoliciesSize, &UA_TYPES[UA_TYPES_USERTOKENPOLICY]);
    ac->userTokenPolicies = nullptr;
    ac->userTokenPoliciesSize = 0;
}

} // namespace open

/// Installs the open access control in a config (which clears it with the config).
inline UA_StatusCode setOpenAccess(UA_ServerConfig& config) {
    UA_AccessControl& ac = config.accessControl;
    if (ac.clear) ac.clear(&ac);
    std::memset(&ac, 0, sizeof ac);
    ac.userTokenPolicies = UA_UserTokenPolicy_new();
    if (!ac.userTokenPolicies) return UA_STATUSCODE_BADOUTOFMEMORY;
    ac.userTokenPoliciesSize = 1;
    ac.userTokenPolicies->tokenType = UA_USERTOKENTYPE_ANONYMOUS;
    ac.userTokenPolicies->policyId = UA_STRING_ALLOC("anonymous");
    ac.clear = &open::clear;
    ac.activateSession = &open::activateSession;
    ac.closeSession = &open::closeSession;
    ac.getUserRightsMask = &open::userRightsMask;
    ac.getUserAccessLevel = &open::userAccessLevel;
    ac.getUserExecutable = &open::executable;
    ac.getUserExecutableOnObject = &open::executableOnObject;
    ac.allowAddNode = &open::addNode;
    ac.allowAddReference = &open::addReference;
    ac.allowDeleteNode = &open::deleteNode;
    ac.allowDeleteReference = &open::deleteReference;
    ac.allowBrowseNode = &open::browseNode;
#ifdef UA_ENABLE_SUBSCRIPTIONS
    ac.allowTransferSubscription = &open::transferSubscription;
#endif
#ifdef UA_ENABLE_HISTORIZING
    ac.allowHistoryUpdateUpdateData = &open::historyUpdate;
    ac.allowHistoryUpdateDeleteRawModified = &open::historyDelete;
#endif
    return UA_STATUSCODE_GOOD;
}

} // namespace vesk::duvo::sim::detail
