#include "app/StampResult.h"

StampResult fromFetchCode(int code) {
  switch (code) {
    case 0:
      return StampResult::kOk;
    case -3:
      return StampResult::kAnswerRefused;
    default:
      return StampResult::kExchangeFailed;
  }
}

StampResult fromStoreCode(int code) {
  switch (code) {
    case 0:
      return StampResult::kOk;
    case -4:
      return StampResult::kEncodingFailed;
    default:
      return StampResult::kTargetNotWritten;
  }
}

int metricsCode(StampResult result) {
  switch (result) {
    case StampResult::kOk:
      return 0;
    case StampResult::kHashFailed:
      return -1;
    case StampResult::kExchangeFailed:
      return -2;
    case StampResult::kAnswerRefused:
      return -3;
    case StampResult::kEncodingFailed:
      return -4;
    case StampResult::kTargetNotWritten:
      return -5;
    default:
      return 1;
  }
}

int notificationNumber(StampResult result) {
  switch (result) {
    case StampResult::kHashFailed:
      return 704;
    case StampResult::kExchangeFailed:
    case StampResult::kAnswerRefused:
    case StampResult::kEncodingFailed:
    case StampResult::kTargetNameTooLong:
    case StampResult::kSourceNameTooLong:
      return 700;
    case StampResult::kWrongComp:
      return 701;
    case StampResult::kCommandsNotWritten:
      return 702;
    case StampResult::kTargetNotWritten:
    case StampResult::kTargetRefused:
    case StampResult::kSourceRefused:
      return 703;
    default:
      return 0;
  }
}
