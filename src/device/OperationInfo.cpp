#include "OperationInfo.h"

namespace {

const char* const kCommandNames[] = {"Install", "Upgrade", "Uninstall", "Archive",
                                     "Restore", "ListApp", "Unknown"};
const int kCommandCount = int(sizeof kCommandNames / sizeof kCommandNames[0]);

} // namespace

OperationInfo::OperationInfo()
    : mType(KOperationListApp),
      mAppType(0),
      mListFormat(0),
      mIsUpdate(false),
      mAppOnly(false),
      mSkipUninstall(false)
{
}

QString OperationInfo::commandName(int command)
{
    if (command < 0 || command >= kCommandCount)
        command = KCommandUnknown;
    return QString::fromLatin1(kCommandNames[command]);
}

int OperationInfo::commandCount()
{
    return kCommandCount;
}

bool OperationInfo::operator==(const OperationInfo& other) const
{
    return mType == other.mType && mAppid == other.mAppid && mAppOnly == other.mAppOnly &&
           mCopyPath == other.mCopyPath && mIpaPath == other.mIpaPath &&
           mIsUpdate == other.mIsUpdate && mSkipUninstall == other.mSkipUninstall &&
           mUdid == other.mUdid;
}
