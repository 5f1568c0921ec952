// Every status that an export can give has words.
#include "product/client.h"

#include <gtest/gtest.h>
#include <tvsqdz_status.h>

#include <initializer_list>

TEST(StatusText, HasWordsForEveryCodeOfLibraryServiceAndRunTime) {
    constexpr int32_t kUnknownOfService = -999;
    constexpr int32_t kUnknownOfSystem = 99999;
    EXPECT_STREQ(TvsStatusText(TVS_OK), "done");
    for (const int32_t status :
         {TVS_E_HANDLE, TVS_E_UNAVAILABLE, TVS_E_UNKNOWN, TVS_E_MEMORY, TVS_E_FAULT, TVS_E_SIZE, TVS_E_REQUEST_LOCK,
          TVS_E_NOT_READY, TVS_E_NO_OWNER, TVS_E_NOT_NOW, TVS_E_UNREGISTERED, TVS_E_SERVICE_TIMEOUT, TVS_E_AUTHORITY})
        EXPECT_STRNE(TvsStatusText(status), TvsStatusText(kUnknownOfService)) << status;
    for (int32_t answer = product::kDatabaseExists; answer >= product::kNotWritable; --answer)
        EXPECT_STRNE(TvsStatusText(answer), TvsStatusText(kUnknownOfService)) << answer;
    for (const int32_t code : std::initializer_list<int32_t>{
             ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY, RPC_S_OUT_OF_MEMORY, ERROR_INVALID_PARAMETER, ERROR_TIMEOUT,
             RPC_S_SERVER_OUT_OF_MEMORY, RPC_S_INVALID_BINDING, RPC_S_UNKNOWN_IF, RPC_S_OUT_OF_RESOURCES,
             RPC_S_SERVER_UNAVAILABLE, RPC_S_SERVER_TOO_BUSY, RPC_S_CALL_FAILED, RPC_S_CALL_FAILED_DNE,
             RPC_S_PROTOCOL_ERROR, RPC_S_PROCNUM_OUT_OF_RANGE, RPC_X_BAD_STUB_DATA, RPC_S_CALL_CANCELLED,
             RPC_S_COMM_FAILURE})
        EXPECT_STRNE(TvsStatusText(code), TvsStatusText(kUnknownOfSystem)) << code;
    EXPECT_STRNE(TvsStatusText(kUnknownOfService), TvsStatusText(kUnknownOfSystem));
}
