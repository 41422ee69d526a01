// The common library, second third: the life of media parameters.

#include "ability.h"

// The media parameters of a session: one object inside each session, copies at the host. The host's threads, the
// delivery thread and the timers use one object at a time, some under the session's lock and some not: each operation
// guards itself, takes no lock but its own, and gives texts by value. Getters and setters cannot fail.
CMediaAbility::CMediaAbility()
    : m_poValues(std::make_unique<Values>())
{
}

CMediaAbility::CMediaAbility(const CMediaAbility &oOther)
    : CMediaAbility()
{
    m_poValues->fields = oOther.m_poValues->copy();
}

// One lock at a time, so that two objects may be assigned to each other.
CMediaAbility &CMediaAbility::operator=(const CMediaAbility &oOther)
{
    if (this == &oOther)
        return *this;
    const own::AbilityFields fields = oOther.m_poValues->copy();
    const std::lock_guard<std::mutex> lock(m_poValues->mutex);
    m_poValues->fields = fields;
    return *this;
}

CMediaAbility::~CMediaAbility() = default;

// Called by every setup() of a session whose parameters are its own: repeated, and while it plays. Keep what is set. A
// failure is setup()'s result, and no request is sent.
ZR_ULONG CMediaAbility::init()
{
    return 0;
}

// Called once, when such a session is deleted; also without an init. Free what init took: copies share nothing.
void CMediaAbility::release() {}

// 1 for the sources that get authentication, control URLs and the hand-off of stream information; asked often.
ZR_ULONG CMediaAbility::isOnvif() const
{
    return getDecoderTag() == "onvif" ? 1 : 0;
}
