#include "core/log_macros.h"
#include "player/player_impl.h"

namespace Tevara::Lumiflux {

void Player::Impl::handleHandoff(GstElement*, GstBuffer* buffer, GstPad* pad, Impl* impl)
{
    impl->handOff(buffer, pad, false);
}

void Player::Impl::handlePrerollHandoff(GstElement*, GstBuffer* buffer, GstPad* pad, Impl* impl)
{
    impl->handOff(buffer, pad, true);
}

void Player::Impl::handOff(GstBuffer*, GstPad*, bool) {}

} // namespace Tevara::Lumiflux
