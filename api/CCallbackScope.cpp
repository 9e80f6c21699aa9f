#include "api/CCallbackScope.h"

namespace ZRT {
namespace Api {

namespace {
thread_local const void* t_owners[CCallbackScope::MAX_DEPTH] = {};
thread_local int t_depth = 0;
thread_local const void* t_errorOwner = nullptr;
thread_local std::string t_error;
const std::string NO_ERROR;
} // namespace

CCallbackScope::CCallbackScope(const void* owner)
{
    if (t_depth < MAX_DEPTH)
        t_owners[t_depth] = owner;
    ++t_depth;
}

CCallbackScope::~CCallbackScope()
{
    --t_depth;
    if (t_depth == 0)
        t_errorOwner = nullptr; // a reason lives as long as the outermost callback
}

bool CCallbackScope::IsInside(const void* owner)
{
    const int known = t_depth < MAX_DEPTH ? t_depth : MAX_DEPTH;
    for (int i = 0; i < known; ++i) {
        if (t_owners[i] == owner)
            return true;
    }
    return false;
}

void CCallbackScope::SetError(const void* owner, const std::string& reason)
{
    t_errorOwner = owner;
    t_error = reason;
}

const std::string& CCallbackScope::GetError(const void* owner)
{
    return t_errorOwner == owner ? t_error : NO_ERROR;
}

} // namespace Api
} // namespace ZRT
