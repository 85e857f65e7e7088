// A minimal host: renders a property list, names a command and formats a line through
// the installed library.
#include <DeviceHelper.h>
#include <OperationInfo.h>
#include <ProgressLine.h>

#include <cstdio>

int main()
{
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "A", plist_new_uint(1));
    plist_dict_set_item(dict, "B", plist_new_string("x"));
    QString text;
    DeviceHelper::nodeToJson(text, dict);
    plist_free(dict);
    text += QLatin1Char('|') + OperationInfo::commandName(KCommandUninstall);
    text += QLatin1Char('|') + ProgressLine::forEmission(ProgressLine::statusComplete(
                                   QStringLiteral("RemoveArchive"), QStringLiteral("Complete"),
                                   QStringLiteral("com.x"), true));
    std::printf("%s\n", text.toUtf8().constData());
    return 0;
}
