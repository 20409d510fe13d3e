#pragma once

#include "travesty/audio_processor.h"
#include "travesty/component.h"
#include "travesty/edit_controller.h"
#include "travesty/factory.h"

namespace zevrant::plugins {

// The interfaces of VST3 that plug-ins implement, as classes. travesty has them as tables of functions whose
// first argument is the object, which is what compilers for the Itanium ABI make of classes like these: one
// pointer to a table with the functions in order.

class FUnknown {
  public:
    virtual v3_result queryInterface(const v3_tuid iid, void** object) = 0;
    virtual std::uint32_t addRef() = 0;
    virtual std::uint32_t release() = 0;

  protected:
    ~FUnknown() = default;
};

class IPluginBase : public FUnknown {
  public:
    virtual v3_result initialize(v3_funknown** context) = 0;
    virtual v3_result terminate() = 0;

  protected:
    ~IPluginBase() = default;
};

class IComponent : public IPluginBase {
  public:
    virtual v3_result getControllerClassId(v3_tuid id) = 0;
    virtual v3_result setIoMode(std::int32_t mode) = 0;
    virtual std::int32_t getBusCount(std::int32_t mediaType, std::int32_t direction) = 0;
    virtual v3_result getBusInfo(std::int32_t mediaType, std::int32_t direction, std::int32_t index,
                                 v3_bus_info* info) = 0;
    virtual v3_result getRoutingInfo(v3_routing_info* in, v3_routing_info* out) = 0;
    virtual v3_result activateBus(std::int32_t mediaType, std::int32_t direction, std::int32_t index,
                                  v3_bool isActive) = 0;
    virtual v3_result setActive(v3_bool isActive) = 0;
    virtual v3_result setState(v3_bstream** stream) = 0;
    virtual v3_result getState(v3_bstream** stream) = 0;

  protected:
    ~IComponent() = default;
};

class IAudioProcessor : public FUnknown {
  public:
    virtual v3_result setBusArrangements(v3_speaker_arrangement* inputs, std::int32_t numOfInputs,
                                         v3_speaker_arrangement* outputs, std::int32_t numOfOutputs) = 0;
    virtual v3_result getBusArrangement(std::int32_t direction, std::int32_t index,
                                        v3_speaker_arrangement* arrangement) = 0;
    virtual v3_result canProcessSampleSize(std::int32_t sampleSize) = 0;
    virtual std::uint32_t getLatencySamples() = 0;
    virtual v3_result setupProcessing(v3_process_setup* setup) = 0;
    virtual v3_result setProcessing(v3_bool isProcessing) = 0;
    virtual v3_result process(v3_process_data* data) = 0;
    virtual std::uint32_t getTailSamples() = 0;

  protected:
    ~IAudioProcessor() = default;
};

class IEditController : public IPluginBase {
  public:
    virtual v3_result setComponentState(v3_bstream** stream) = 0;
    virtual v3_result setControllerState(v3_bstream** stream) = 0;
    virtual v3_result getControllerState(v3_bstream** stream) = 0;
    virtual std::int32_t getParameterCount() = 0;
    virtual v3_result getParameterInfo(std::int32_t index, v3_param_info* info) = 0;
    virtual v3_result getParameterStringForValue(v3_param_id id, double normalised, v3_str_128 text) = 0;
    virtual v3_result getParameterValueForString(v3_param_id id, std::int16_t* text, double* normalised) = 0;
    virtual double normalisedParameterToPlain(v3_param_id id, double normalised) = 0;
    virtual double plainParameterToNormalised(v3_param_id id, double plain) = 0;
    virtual double getParameterNormalised(v3_param_id id) = 0;
    virtual v3_result setParameterNormalised(v3_param_id id, double normalised) = 0;
    virtual v3_result setComponentHandler(v3_component_handler** handler) = 0;
    virtual v3_plugin_view** createView(const char* name) = 0;

  protected:
    ~IEditController() = default;
};

class IPluginFactory3 : public FUnknown {
  public:
    virtual v3_result getFactoryInfo(v3_factory_info* info) = 0;
    virtual std::int32_t countClasses() = 0;
    virtual v3_result getClassInfo(std::int32_t index, v3_class_info* info) = 0;
    virtual v3_result createInstance(const v3_tuid classId, const v3_tuid iid, void** instance) = 0;
    virtual v3_result getClassInfo2(std::int32_t index, v3_class_info_2* info) = 0;
    virtual v3_result getClassInfoUnicode(std::int32_t index, v3_class_info_3* info) = 0;
    virtual v3_result setHostContext(v3_funknown** context) = 0;

  protected:
    ~IPluginFactory3() = default;
};

}  // namespace zevrant::plugins
