// lockdownd on port 62078: values, pairing, sessions (with the TLS upgrade) and the
// start of services. Requests and answers are property lists with a 32-bit big-endian
// length. Success answers echo "Request" (with "Result" "Success"); failures carry
// "Error" with lockdown's error name and no "Result", which is how libimobiledevice
// maps them to its error codes.

#include "Crypto.h"
#include "Log.h"
#include "Service.h"
#include "Simulator.h"
#include "Stream.h"

namespace devsim {

namespace {

class LockdownSession
{
public:
    LockdownSession(Simulator& simulator, std::shared_ptr<Device> device, Stream& stream)
        : mSimulator(simulator), mDevice(std::move(device)), mStream(stream)
    {
    }

    void run()
    {
        while (true) {
            Plist request;
            PlistReadResult result = receivePlist(mStream, request, 4u << 20);
            if (result == PlistReadResult::Closed) {
                // Hosts close without a goodbye (and, after StopSession, without a TLS
                // close_notify): a normal end.
                return;
            }
            if (result != PlistReadResult::Ok && result != PlistReadResult::Invalid) {
                logDebug("%s: lockdown connection ended mid-message", mDevice->udid().c_str());
                return;
            }
            if (!request || plist_get_node_type(request.get()) != PLIST_DICT) {
                Plist reply = plistDict();
                dictSetString(reply.get(), "Error", "InvalidRequest");
                if (!sendPlist(mStream, reply.get()))
                    return;
                continue;
            }
            if (!handle(request.get()))
                return;
        }
    }

private:
    Plist answer(const std::string& request)
    {
        Plist reply = plistDict();
        dictSetString(reply.get(), "Request", request);
        dictSetString(reply.get(), "Result", "Success");
        return reply;
    }

    bool fail(const std::string& request, const std::string& error)
    {
        logDebug("%s: lockdown %s -> %s", mDevice->udid().c_str(), request.c_str(), error.c_str());
        Plist reply = plistDict();
        dictSetString(reply.get(), "Request", request);
        dictSetString(reply.get(), "Error", error);
        return sendPlist(mStream, reply.get());
    }

    bool handle(plist_t request)
    {
        const std::string name = dictString(request, "Request");
        // Hosts name themselves in every request's Label; the log shows who asked.
        logDebug("%s: lockdown request %s from %s", mDevice->udid().c_str(), name.c_str(),
                 dictString(request, "Label").c_str());
        if (name == "QueryType") {
            Plist reply = answer(name);
            dictSetString(reply.get(), "Type", "com.apple.mobile.lockdown");
            return sendPlist(mStream, reply.get());
        }
        if (name == "GetValue")
            return getValue(request);
        if (name == "SetValue")
            return setValue(request);
        if (name == "RemoveValue")
            return removeValue(request);
        if (name == "StartSession")
            return startSession(request);
        if (name == "StopSession")
            return stopSession(request);
        if (name == "StartService")
            return startService(request);
        if (name == "Pair" || name == "ValidatePair" || name == "Unpair")
            return pairing(name, request);
        if (name == "Goodbye") {
            Plist reply = answer(name);
            sendPlist(mStream, reply.get());
            return false;
        }
        if (name.empty())
            return fail(name, "MissingRequest");
        return fail(name, "InvalidRequest");
    }

    bool getValue(plist_t request)
    {
        const std::string domain = dictString(request, "Domain");
        const std::string key = dictString(request, "Key");
        Plist value = mDevice->value(domain, key);
        if (!value)
            return fail("GetValue", "MissingValue");
        Plist reply = answer("GetValue");
        if (!domain.empty())
            dictSetString(reply.get(), "Domain", domain);
        if (!key.empty())
            dictSetString(reply.get(), "Key", key);
        dictSet(reply.get(), "Value", std::move(value));
        return sendPlist(mStream, reply.get());
    }

    bool setValue(plist_t request)
    {
        if (mSessionId.empty())
            return fail("SetValue", "SessionInactive");
        const std::string domain = dictString(request, "Domain");
        const std::string key = dictString(request, "Key");
        std::string error;
        if (!mDevice->setValue(domain, key, plist_dict_get_item(request, "Value"), &error))
            return fail("SetValue", error);
        Plist reply = answer("SetValue");
        if (!domain.empty())
            dictSetString(reply.get(), "Domain", domain);
        dictSetString(reply.get(), "Key", key);
        return sendPlist(mStream, reply.get());
    }

    bool removeValue(plist_t request)
    {
        if (mSessionId.empty())
            return fail("RemoveValue", "SessionInactive");
        std::string error;
        if (!mDevice->removeValue(dictString(request, "Domain"), dictString(request, "Key"),
                                  &error))
            return fail("RemoveValue", error);
        Plist reply = answer("RemoveValue");
        return sendPlist(mStream, reply.get());
    }

    bool startSession(plist_t request)
    {
        const std::string hostId = dictString(request, "HostID");
        if (hostId.empty())
            return fail("StartSession", "MissingHostID");
        if (!mDevice->trustsHost(hostId))
            return fail("StartSession", "InvalidHostID");
        if (!mSessionId.empty())
            return fail("StartSession", "SessionActive");
        mSessionId = randomUuid();
        Plist reply = answer("StartSession");
        dictSetString(reply.get(), "SessionID", mSessionId);
        dictSetBool(reply.get(), "EnableSessionSSL", true);
        if (!sendPlist(mStream, reply.get()))
            return false;
        if (!mStream.startTls(mDevice->tlsContext())) {
            logDebug("%s: TLS handshake failed", mDevice->udid().c_str());
            return false;
        }
        return true;
    }

    bool stopSession(plist_t request)
    {
        if (mSessionId.empty())
            return fail("StopSession", "SessionInactive");
        if (dictString(request, "SessionID") != mSessionId)
            return fail("StopSession", "InvalidSessionID");
        mSessionId.clear();
        Plist reply = answer("StopSession");
        bool sent = sendPlist(mStream, reply.get());
        mStream.endTls();
        return sent;
    }

    bool startService(plist_t request)
    {
        const std::string service = dictString(request, "Service");
        if (service.empty())
            return fail("StartService", "MissingService");
        if (mSessionId.empty())
            return fail("StartService", "SessionInactive");
        const Faults& faults = mDevice->faults();
        auto failing = faults.failingServices.find(service);
        if (failing != faults.failingServices.end())
            return fail("StartService", failing->second);
        const ServiceInfo* info = findService(service);
        if (!info || (info->available && !info->available(*mDevice)))
            return fail("StartService", "InvalidService");
        uint16_t port = mDevice->openServicePort(service);
        if (port == 0)
            return fail("StartService", "ServiceLimit");
        Plist reply = answer("StartService");
        dictSetString(reply.get(), "Service", service);
        dictSetUInt(reply.get(), "Port", port);
        dictSetBool(reply.get(), "EnableServiceSSL", false);
        logDebug("%s: started %s on port %u", mDevice->udid().c_str(), service.c_str(), port);
        return sendPlist(mStream, reply.get());
    }

    bool pairing(const std::string& verb, plist_t request)
    {
        plist_t record = dictItem(request, "PairRecord", PLIST_DICT);
        const std::string hostId = dictString(record, "HostID");
        if (!record || hostId.empty())
            return fail(verb, "InvalidPairRecord");
        if (verb == "Pair") {
            mDevice->trustHost(hostId);
            Plist reply = answer(verb);
            dictSetData(reply.get(), "EscrowBag", mDevice->escrowBag());
            return sendPlist(mStream, reply.get());
        }
        if (verb == "ValidatePair") {
            if (!mDevice->trustsHost(hostId))
                return fail(verb, "InvalidHostID");
            Plist reply = answer(verb);
            return sendPlist(mStream, reply.get());
        }
        mDevice->forgetHost(hostId);
        Plist reply = answer(verb);
        return sendPlist(mStream, reply.get());
    }

    Simulator& mSimulator;
    std::shared_ptr<Device> mDevice;
    Stream& mStream;
    std::string mSessionId;
};

} // namespace

void serveLockdown(Simulator& simulator, std::shared_ptr<Device> device, Stream& stream)
{
    LockdownSession session(simulator, std::move(device), stream);
    session.run();
}

} // namespace devsim
