// The object root: how a class of the module gets its allocator, its tracer, its locator, and any other
// service that it requires.
//
// A required service is looked up in a constructor, which throws GetInterfaceException if it is missing. So a
// class needn't test for these services: an object that exists has them all. The fields don't change after
// construction and may be read on any thread.
#pragma once

#include "contract/service_locator.h"
#include "contract/tracer.h"
#include "types/allocator.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace zel {

// Looks up a service, or throws GetInterfaceException with its id and the locator's result.
template <class I>
Ref<I> RequireInterface(IServiceLocator* locator) {
  Ref<I> service;
  const ResultCode code = GetInterface(locator, service);
  if (Failed(code)) throw GetInterfaceException(I::iid, code);
  return service;
}

// The providers, each with one reference.
struct AllocatorProvider {
  explicit AllocatorProvider(IServiceLocator* source) : allocator(RequireInterface<IAllocator>(source)) {}
  const Ref<IAllocator> allocator;
};
struct TracerProvider {
  explicit TracerProvider(IServiceLocator* source) : tracer(RequireInterface<ITracer>(source)) {}
  const Ref<ITracer> tracer;
};
struct ServiceLocatorProvider {
  explicit ServiceLocatorProvider(IServiceLocator* source) : locator(source) {}
  const Ref<IServiceLocator> locator;
};

// A list of services. The bases are constructed, so the services are looked up, in the order of the list.
struct NoServiceStrategy {
  NoServiceStrategy() = default;
  explicit NoServiceStrategy(IServiceLocator*) {}
};
template <class Provider>
struct ServiceStrategyAdapter : Provider {
  using Provider::Provider;
};
template <class First, class Rest>
struct CompositeServiceStrategy : First, Rest {
  explicit CompositeServiceStrategy(IServiceLocator* source) : First(source), Rest(source) {}
};
// An empty place in a list is no base, since a class can't be a base twice.
template <class Rest>
struct CompositeServiceStrategy<NoServiceStrategy, Rest> : Rest {
  explicit CompositeServiceStrategy(IServiceLocator* source) : Rest(source) {}
};
template <class A, class B, class C, class D, class E>
using CompositeServiceStrategyHelper = CompositeServiceStrategy<
    A, CompositeServiceStrategy<
           B, CompositeServiceStrategy<
                  C, CompositeServiceStrategy<D, CompositeServiceStrategy<E, NoServiceStrategy>>>>>;

// The base that gives a class the services of strategy S.
template <class S>
class ObjectRootEx : public S {
 public:
  using S::S;
};

// The services of the sender and the request callback.
using AllocatorTracerLocatorStrategy = CompositeServiceStrategyHelper<
    ServiceStrategyAdapter<AllocatorProvider>, ServiceStrategyAdapter<TracerProvider>,
    ServiceStrategyAdapter<ServiceLocatorProvider>, NoServiceStrategy, NoServiceStrategy>;

// The base with which a class requires service I.
template <class I>
class ServiceProvider {
 public:
  explicit ServiceProvider(IServiceLocator* locator) : service_(RequireInterface<I>(locator)) {}

 protected:
  ~ServiceProvider() = default;
  I* Service() const { return service_.Get(); }

 private:
  const Ref<I> service_;
};

}  // namespace zel
